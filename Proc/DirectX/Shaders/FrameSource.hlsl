// The samples of a frame, and R'G'B' of them. Places are in luma samples, the centre of the first
// at 0.5. All is computed in single precision from samples as they are, since a sampler weighs with
// few bits.
//
// A shader is made for one kind of frame: SOURCE_PLANES; SOURCE_ARRAY, where the textures are viewed
// as arrays; and CHROMA_PLACES, which says how chroma is found at the place of a luma sample.

#define CHROMA_ON_LUMA 0 // as many samples as luma has
#define CHROMA_BILINEAR 1
#define CHROMA_CATMULL_ROM 2

cbuffer FrameBuffer: register( b1 )
{
    float4 sampleZero; // of Y', C'b, C'r, or of R', G', B'
    float4 redOfSamples;
    float4 greenOfSamples;
    float4 blueOfSamples;
    float2 chromaScale; // of a place to one in chroma samples
    float2 chromaShift;
    int2 lastLuma;
    int2 lastChroma;
    float4 firstOfColors; // codes of a target, of (R', G', B', 1), or of samples where PLAIN
    float4 secondOfColors;
    float4 thirdOfColors;
    float smallestCode;
    float largestCode;
    float codeUnit;
    float toneBlack; // of tone mapping
    float toneRange;
    float toneInverseRange;
    float toneKnee;
    float toneInverseRest;
    float tonePeak;
    float toneLift;
    float toneLiftPower;
    float toneBrightest;
};

// Of texture arrays the views have one slice. Planes that a frame lacks are its first.
#ifdef SOURCE_ARRAY
#define PLANE Texture2DArray
#define TEXEL( at ) int4( at, 0, 0 )
#else
#define PLANE Texture2D
#define TEXEL( at ) int3( at, 0 )
#endif
PLANE plane0: register( t0 );
PLANE plane1: register( t1 );
PLANE plane2: register( t2 );

// Nearer to a sample than this is on it: coordinates are not exact.
static const float ON_SAMPLE = 1.0 / 1024.0;

int2 Inside( int2 at, int2 last )
{
    return min( max( at, int2( 0, 0 ) ), last );
}

float4 LoadFirst( int2 at )
{
    return plane0.Load( TEXEL( Inside( at, lastLuma ) ) );
}

// The sample before a place, as a float; and how far behind it the place is, 0 to 1.
float2 SampleBefore( float2 place )
{
    return floor( place - 0.5 + ON_SAMPLE );
}

float2 WayFrom( float2 before, float2 place )
{
    float2 way = place - 0.5 - before;
    return abs( way ) < ON_SAMPLE ? float2( 0.0, 0.0 ) : way;
}

float4 InterpolateFirst( float2 place )
{
    float2 before = SampleBefore( place );
    float2 way = WayFrom( before, place );
    int2 at = int2( before );
    [branch]
    if ( all( way == 0.0 ) ) // as everywhere where a frame keeps its size
        return LoadFirst( at );
    float4 upper = lerp( LoadFirst( at ), LoadFirst( at + int2( 1, 0 ) ), way.x );
    float4 lower = lerp( LoadFirst( at + int2( 0, 1 ) ), LoadFirst( at + int2( 1, 1 ) ), way.x );
    return lerp( upper, lower, way.y );
}

#if SOURCE_PLANES > 1

float2 LoadChroma( int2 at )
{
    float2 chroma = plane1.Load( TEXEL( Inside( at, lastChroma ) ) ).xy;
#if SOURCE_PLANES > 2
    chroma.y = plane2.Load( TEXEL( Inside( at, lastChroma ) ) ).x;
#endif
    return chroma;
}

#if CHROMA_PLACES == CHROMA_CATMULL_ROM

// Keys' cubic with a = -1/2, of the samples -1, 0, 1, 2.
float4 CatmullRomWeights( float t )
{
    return float4( ( ( 2.0 - t ) * t - 1.0 ) * t, ( 3.0 * t - 5.0 ) * t * t + 2.0,
                   ( ( 4.0 - 3.0 * t ) * t + 1.0 ) * t, ( t - 1.0 ) * t * t ) * 0.5;
}

// Of the sample at -1, 0, 1 or 2.
float ChromaWeight( int index, float4 weights )
{
    return dot( weights, float4( index == -1, index == 0, index == 1, index == 2 ) );
}

// The place is in chroma samples. One load in loops: a compiler that unrolls forty takes seconds.
float2 InterpolateChroma( float2 place )
{
    float2 before = SampleBefore( place );
    float2 way = WayFrom( before, place );
    float4 across = CatmullRomWeights( way.x );
    float4 down = CatmullRomWeights( way.y );
    // On a sample there is nothing to interpolate.
    int2 first = int2( way.x != 0.0 ? -1 : 0, way.y != 0.0 ? -1 : 0 );
    int2 last = int2( way.x != 0.0 ? 2 : 0, way.y != 0.0 ? 2 : 0 );
    float2 chroma = float2( 0.0, 0.0 );
    [loop]
    for ( int y = first.y; y <= last.y; ++y )
    {
        [loop]
        for ( int x = first.x; x <= last.x; ++x )
            chroma += LoadChroma( int2( before ) + int2( x, y ) ) *
                      ( ChromaWeight( x, across ) * ChromaWeight( y, down ) );
    }
    return chroma;
}

#else

// The place is in chroma samples.
float2 InterpolateChroma( float2 place )
{
    float2 before = SampleBefore( place );
    float2 way = WayFrom( before, place );
    int2 at = int2( before );
    float2 upper = lerp( LoadChroma( at ), LoadChroma( at + int2( 1, 0 ) ), way.x );
    float2 lower = lerp( LoadChroma( at + int2( 0, 1 ) ), LoadChroma( at + int2( 1, 1 ) ), way.x );
    return lerp( upper, lower, way.y );
}

#endif

float4 WithChroma( float4 first, float2 place )
{
    return float4( first.x, InterpolateChroma( place * chromaScale + chromaShift ), 1.0 );
}

#else

float4 WithChroma( float4 first, float2 place )
{
    return first;
}

#endif

// What the first sample is, or between samples; with its chroma.
float4 SampleFrame( float2 place )
{
    return WithChroma( InterpolateFirst( place ), place );
}

// Of a pixel inside the frame.
float4 LoadFrame( int2 at )
{
    float4 samples = plane0.Load( TEXEL( at ) );
#if SOURCE_PLANES > 1 && CHROMA_PLACES == CHROMA_ON_LUMA
    samples = float4( samples.x, LoadChroma( at ), 1.0 );
#else
    samples = WithChroma( samples, float2( at ) + 0.5 );
#endif
    return samples;
}

float4 ColorOfSamples( float4 samples )
{
    float3 difference = samples.xyz - sampleZero.xyz;
    return float4( dot( redOfSamples.xyz, difference ), dot( greenOfSamples.xyz, difference ),
                   dot( blueOfSamples.xyz, difference ), samples.w );
}
