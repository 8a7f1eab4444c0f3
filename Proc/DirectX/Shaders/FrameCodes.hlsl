// Samples of a frame's planes from the samples of another: their mean at the place of the target's,
// as codes. What the planes of one pass are: the first target may hold several channels, the others
// have one.
//
// A shader is made for one kind of conversion: TARGET_COUNT; CHANNEL_COUNT, of codes; TAPS_ACROSS
// and TAPS_DOWN, the source's pixels for one sample; DITHER; PLAIN, where the codes are sums of the
// source's samples, because the colours stay; then OPAQUE, where alpha is one, and PREMULTIPLIED,
// where colours are multiplied with alpha before.

struct PSOutput
{
#if TARGET_COUNT * CHANNEL_COUNT == 3
    float4 first: SV_TARGET0; // with alpha
#elif TARGET_COUNT < CHANNEL_COUNT
    float2 first: SV_TARGET0;
#else
    float first: SV_TARGET0;
#endif
#if TARGET_COUNT > 1
    float second: SV_TARGET1;
#endif
#if TARGET_COUNT > 2
    float third: SV_TARGET2;
#endif
};

float4 LoadTap( int2 at )
{
    float4 samples = LoadFrame( at );
#ifndef PLAIN
    samples = ConvertColorSpace( ColorOfSamples( samples ) );
#elif defined( PREMULTIPLIED )
    samples.xyz = sampleZero.xyz + ( samples.xyz - sampleZero.xyz ) * samples.w;
#endif
    return samples;
}

#if TAPS_ACROSS * TAPS_DOWN > 1

int2 FirstTap( int2 at )
{
    return at * int2( min( TAPS_ACROSS, 2 ), min( TAPS_DOWN, 2 ) ) -
           int2( TAPS_ACROSS / 3, TAPS_DOWN / 3 );
}

// Triangles and boxes about the place: 1; 1/2, 1/2; 1/4, 1/2, 1/4.
#ifdef PLAIN

float4 MeanOfRow( int2 from )
{
    float4 mean = LoadTap( Inside( from, lastLuma ) );
#if TAPS_ACROSS == 2
    mean = ( mean + LoadTap( Inside( from + int2( 1, 0 ), lastLuma ) ) ) * 0.5;
#elif TAPS_ACROSS == 3
    mean = ( mean + LoadTap( Inside( from + int2( 2, 0 ), lastLuma ) ) ) * 0.25 +
           LoadTap( Inside( from + int2( 1, 0 ), lastLuma ) ) * 0.5;
#endif
    return mean;
}

float4 MeanOfTaps( int2 at )
{
    int2 from = FirstTap( at );
    float4 mean = MeanOfRow( from );
#if TAPS_DOWN == 2
    mean = ( mean + MeanOfRow( from + int2( 0, 1 ) ) ) * 0.5;
#elif TAPS_DOWN == 3
    mean = ( mean + MeanOfRow( from + int2( 0, 2 ) ) ) * 0.25 +
           MeanOfRow( from + int2( 0, 1 ) ) * 0.5;
#endif
    return mean;
}

#else

float TapWeight( int index, int count )
{
    float weight = 1.0 / float( min( count, 2 ) );
    if ( count == 3 && index != 1 )
        weight = 0.25;
    return weight;
}

// In loops, because a conversion of colours is much to write out.
float4 MeanOfTaps( int2 at )
{
    int2 from = FirstTap( at );
    float4 sum = float4( 0.0, 0.0, 0.0, 0.0 );
    [loop]
    for ( int y = 0; y < TAPS_DOWN; ++y )
    {
        [loop]
        for ( int x = 0; x < TAPS_ACROSS; ++x )
            sum += LoadTap( Inside( from + int2( x, y ), lastLuma ) ) *
                   ( TapWeight( x, TAPS_ACROSS ) * TapWeight( y, TAPS_DOWN ) );
    }
    return sum;
}

#endif

#else

float4 MeanOfTaps( int2 at )
{
    return LoadTap( at );
}

#endif

static const uint2 PATTERN_SHIFT = uint2( 19, 37 ); // 3 and 5 of eight

#if DITHER == 1

// Bayer's 8 x 8, each of 64 steps between 0 and 1 once.
float Threshold( uint2 at )
{
    uint x = at.x ^ at.y;
    uint y = at.y;
    uint order = ( ( x & 1u ) << 5 ) | ( ( y & 1u ) << 4 ) | ( ( x & 2u ) << 2 ) |
                ( ( y & 2u ) << 1 ) | ( ( x & 4u ) >> 1 ) | ( ( y & 4u ) >> 2 );
    return ( float( order ) + 0.5 ) / 64.0;
}

#elif DITHER == 2

Buffer<uint> patternRanks: register( t4 ); // of 64 x 64 pixels

float Threshold( uint2 at )
{
    uint2 place = at & 63u;
    return ( float( patternRanks.Load( int( place.y * 64u + place.x ) ) ) + 0.5 ) / 4096.0;
}

#else

float Threshold( uint2 at )
{
    return 0.5;
}

#endif

// The sample of a channel. Each has its thresholds elsewhere in the pattern.
float SampleOf( float4 row, float3 color, uint2 at, uint channel )
{
    float code = clamp( dot( row.xyz, color ) + row.w, smallestCode, largestCode );
    return floor( code + Threshold( at + channel * PATTERN_SHIFT ) ) * codeUnit;
}

PSOutput PSMain( PSInput input )
{
    int2 at = int2( input.position.xy );
    float4 color = MeanOfTaps( at );
#ifdef OPAQUE
    color.a = 1.0;
#endif
    float3 samples = float3( SampleOf( firstOfColors, color.rgb, uint2( at ), 0u ), 0.0, 0.0 );
#if CHANNEL_COUNT > 1
    samples.y = SampleOf( secondOfColors, color.rgb, uint2( at ), 1u );
#endif
#if CHANNEL_COUNT > 2
    samples.z = SampleOf( thirdOfColors, color.rgb, uint2( at ), 2u );
#endif

    PSOutput output;
#if TARGET_COUNT * CHANNEL_COUNT == 3
    output.first = float4( samples, color.a );
#elif TARGET_COUNT < CHANNEL_COUNT
    output.first = samples.xy;
#else
    output.first = samples.x;
#endif
#if TARGET_COUNT > 1
    output.second = samples.y;
#endif
#if TARGET_COUNT > 2
    output.third = samples.z;
#endif
    return output;
}
