// Samples of a frame's planes from the samples of another: their mean at the place of the target's,
// as codes. What the planes of one pass are: the first target may hold several channels, the others
// have one.

struct PSOutput
{
    float4 first: SV_TARGET0;
#if TARGET_COUNT > 1
    float4 second: SV_TARGET1;
#endif
#if TARGET_COUNT > 2
    float4 third: SV_TARGET2;
#endif
};

// 1; 1/2, 1/2; 1/4, 1/2, 1/4: triangles and boxes about the place.
float TapWeight( int index, int count )
{
    float weight = 1.0 / float( min( count, 2 ) );
    if ( count == 3 && index != 1 )
        weight = 0.25;
    return weight;
}

float4 LoadTap( int2 at )
{
    float4 samples = LoadFrame( at );
    if ( isPlain == 0 )
        samples = ConvertColorSpace( ColorOfSamples( samples ) );
    return samples;
}

float4 MeanOfTaps( int2 from )
{
    float4 sum = float4( 0.0, 0.0, 0.0, 0.0 );
    [loop]
    for ( int y = 0; y < tapCount.y; ++y )
    {
        [loop]
        for ( int x = 0; x < tapCount.x; ++x )
            sum += LoadTap( from + int2( x, y ) ) *
                   ( TapWeight( x, tapCount.x ) * TapWeight( y, tapCount.y ) );
    }
    return sum;
}

// Bayer's 8 x 8, each of 64 steps between 0 and 1 once.
float Threshold( uint2 at )
{
    uint x = at.x ^ at.y;
    uint y = at.y;
    uint order = ( ( x & 1u ) << 5 ) | ( ( y & 1u ) << 4 ) | ( ( x & 2u ) << 2 ) |
                ( ( y & 2u ) << 1 ) | ( ( x & 4u ) >> 1 ) | ( ( y & 4u ) >> 2 );
    return ( float( order ) + 0.5 ) / 64.0;
}

float3 RoundCodes( float3 codes, uint2 at )
{
    float3 threshold = float3( 0.5, 0.5, 0.5 );
    if ( dither > 0.0 )
        threshold = float3( Threshold( at ), Threshold( at + uint2( 3, 5 ) ),
                            Threshold( at + uint2( 6, 2 ) ) );
    return floor( clamp( codes, smallestCodes.xyz, largestCodes.xyz ) + threshold );
}

PSOutput PSMain( PSInput input )
{
    int2 at = int2( input.position.xy );
#ifdef ONE_TAP
    float4 color = LoadTap( at );
#else
    float4 color = MeanOfTaps( at * tapStep + tapFirst );
#endif
    if ( isPlain != 0 )
        color = ColorOfSamples( color );
    if ( isPlain != 0 && sourceAlphaType == AlphaTypeAlphaIsOne )
        color.a = 1.0;
    float3 codes = float3( dot( firstOfColors.xyz, color.rgb ) + firstOfColors.w,
                           dot( secondOfColors.xyz, color.rgb ) + secondOfColors.w,
                           dot( thirdOfColors.xyz, color.rgb ) + thirdOfColors.w );
    float3 samples = RoundCodes( codes, uint2( at ) ) * codeUnit;

    PSOutput output;
    output.first = float4( samples, color.a );
#if TARGET_COUNT > 1
    output.second = samples.yyyy;
#endif
#if TARGET_COUNT > 2
    output.third = samples.zzzz;
#endif
    return output;
}
