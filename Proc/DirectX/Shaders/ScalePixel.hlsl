// One of the two passes that scale a picture: along rows into an intermediate texture (FIRST_PASS),
// or along its columns into the target. Weights come from a table; the first pass takes the source
// to premultiplied colours, of light where a transfer function is named, the second goes back.
// FRAME_SOURCE: the first reads a frame of video, by FrameSource.hlsl, which stands before.

cbuffer ParamsBuffer: register( b0 )
{
    int2 origin;     // of the viewport on the target of the pass
    int2 firstTexel; // what the table counts from, and the first texel across
    int lastTap;     // along the filter, counted from there
    int quadCount;   // weights of a pixel, by fours
    uint transfer;   // 0: filtered as encoded
    uint alphaType;
    float antiRinging;
};

#ifndef FRAME_SOURCE
Texture2D shaderTexture: register( t0 );
#endif

// For each pixel along the filter: its first tap and the ends of the range that its neighbours
// make, then the weights.
#ifdef FRAME_SOURCE
Buffer<float4> weights: register( t3 );
#else
Buffer<float4> weights: register( t1 );
#endif

struct PSInput
{
    float4 position: SV_POSITION;
    float2 uv: TEXCOORD0;
};

// As of the image shader: what arithmetic and a target of 16-bit floats hold.
static const float MAX_RESULT = 65504.0;

bool IsDivided()
{
    return alphaType == AlphaTypeNonPremultiplied ||
           ( alphaType == AlphaTypePremultiplied && transfer != 0 );
}

#ifdef FIRST_PASS

float3 Decode( float3 color )
{
    if ( transfer == TransferSRGB )
        color = srgb_to_display_linear( color );
    else if ( transfer == TransferBT709 )
        color = rec709_to_display_linear( color );
    else if ( transfer == TransferPQ )
        color = pq_decode( color );
    else if ( transfer == TransferHLG )
        color = hlg_decode( color );
    return color;
}

float4 LoadPixel( int2 at )
{
#ifdef FRAME_SOURCE
    return ColorOfSamples( LoadFrame( at ) );
#else
    return shaderTexture.Load( int3( at, 0 ) );
#endif
}

float4 LoadTap( int tap, int across )
{
    int2 at = firstTexel + int2( min( tap, lastTap ), across );
    float4 color = LoadPixel( at );
    if ( alphaType == AlphaTypeAlphaIsOne )
        color.a = 1.0;
    if ( alphaType == AlphaTypePremultiplied && transfer != 0 )
        color = unpremultiply( color );
    color.rgb = Decode( color.rgb );
    if ( IsDivided() )
        color = premultiply( color );
    return clamp( color, -MAX_RESULT, MAX_RESULT );
}

float4 Finish( float4 color )
{
    return clamp( color, -MAX_RESULT, MAX_RESULT );
}

#else

float4 LoadTap( int tap, int across )
{
    return shaderTexture.Load( int3( across, min( tap, lastTap ), 0 ) );
}

float3 Encode( float3 color )
{
    if ( transfer == TransferSRGB )
        color = display_linear_to_srgb( color );
    else if ( transfer == TransferBT709 )
        color = display_linear_to_rec709( color );
    else if ( transfer == TransferPQ )
        color = pq_encode( color );
    else if ( transfer == TransferHLG )
        color = hlg_encode( color );
    return color;
}

float4 Finish( float4 color )
{
    if ( alphaType == AlphaTypeAlphaIsOne )
        color.a = 1.0;
    if ( IsDivided() )
        color.rgb = color.a > 0.0 ? color.rgb / max( color.a, 1e-20 ) : 0.0;
    color.rgb = clamp( Encode( color.rgb ), -MAX_RESULT, MAX_RESULT );
    color.a = saturate( color.a );
    if ( alphaType == AlphaTypePremultiplied && transfer != 0 )
        color = premultiply( color );
    return color;
}

#endif

float4 PSMain( PSInput input ): SV_TARGET
{
    int2 pixel = int2( input.position.xy ) - origin;
#ifdef FIRST_PASS
    int along = pixel.x;
    int across = pixel.y;
#else
    int along = pixel.y;
    int across = pixel.x;
#endif
    int row = along * ( quadCount + 1 );
    float4 header = weights.Load( row );
    int tap = int( header.x );
    float4 sum = 0.0;
    [loop]
    for ( int quad = 1; quad <= quadCount; ++quad )
    {
        // One tap in a loop: compilers take seconds for four.
        float4 weight = weights.Load( row + quad );
        [loop]
        for ( int i = 0; i < 4; ++i )
        {
            sum += weight.x * LoadTap( tap + i, across );
            weight = weight.yzwx;
        }
        tap += 4;
    }
    if ( antiRinging > 0.0 )
    {
        // From what no tap exceeds, so that a tap stands here once.
        float4 low = MAX_RESULT;
        float4 high = -MAX_RESULT;
        int last = int( header.z );
        [loop]
        for ( int neighbour = int( header.y ); neighbour <= last; ++neighbour )
        {
            float4 color = LoadTap( neighbour, across );
            low = min( low, color );
            high = max( high, color );
        }
        sum += antiRinging * ( clamp( sum, low, high ) - sum );
    }
    return Finish( sum );
}
