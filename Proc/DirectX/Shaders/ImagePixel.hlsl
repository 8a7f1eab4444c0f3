// One sample of an image, converted between colour spaces and alpha types as the constant buffer
// says. A conversion that is not supported shows as pure red (source), green (primaries) or blue
// (target).

cbuffer ParamsBuffer: register( b0 )
{
    matrix transform;
    uint sourceColorSpace;
    uint targetColorSpace;
    uint sourceAlphaType;
    uint targetAlphaType;
    bool displayLinear;
    float linearScale;
    float pqTonemapA;
    float pqTonemapB;
    float displayPeakLuminance;
    float hlgOOTFGamma;
    float transparency;
    float colorTransparency;
    float2 partOrigin;
    float2 partExtent;
    float2 firstTexel;
    float2 lastTexel;
};

// A shader of one conversion has it as constants: nothing is left of the other branches.
#ifdef ONE_CONVERSION
#define sourceColorSpace ONE_SOURCE_COLOR_SPACE
#define targetColorSpace ONE_TARGET_COLOR_SPACE
#define sourceAlphaType ONE_SOURCE_ALPHA_TYPE
#define targetAlphaType ONE_TARGET_ALPHA_TYPE
#define displayLinear ONE_DISPLAY_LINEAR
#endif

struct PSInput
{
    float4 position: SV_POSITION;
    float2 uv: TEXCOORD0;
};

// What else a shader does where it is asked to; the functions stand behind this text. To values of
// PQ, in place of the curve of pqTonemapA and B:
#ifdef TONE_CURVE
#define CHANGES_COLORS true
float3 MapTones( float3 signal );
#else
#define CHANGES_COLORS ( sourceColorSpace != targetColorSpace || linearScale != 1.0 )
#endif
// to the target's linear light,
#ifdef REDUCES_GAMUT
float3 ReduceGamut( float3 color );
#endif
// and to its encoded colours.
#ifdef COLOR_STAGE
float3 ChangeColor( float3 color );
#endif

float3 Linearize( float3 color )
{
    if ( sourceColorSpace == sRGB )
        color = srgb_to_linear( color, displayLinear );
    else if ( sourceColorSpace == Rec709 || sourceColorSpace == Rec2020 )
        color = rec709_to_linear( color, displayLinear );
    else if ( sourceColorSpace == Rec2020PQ )
#ifdef TONE_CURVE
        color = pq_light_to_rec2020_linear( MapTones( color ), displayLinear );
#else
        color = rec2100PQ_to_rec2020_linear( color, displayLinear, pqTonemapA, pqTonemapB );
#endif
    else if ( sourceColorSpace == Rec2020HLG )
        color = rec2020HLG_to_rec2020_linear( color, displayLinear, displayPeakLuminance,
                                              hlgOOTFGamma );
    else
        color = float3( 1.0, 0.0, 0.0 );
    return color;
}

float3 ConvertPrimaries( float3 color )
{
    uint sourcePrimaries = sourceColorSpace >> 8;
    uint targetPrimaries = targetColorSpace >> 8;
    if ( sourcePrimaries != targetPrimaries )
    {
        if ( sourcePrimaries == BT709 && targetPrimaries == BT2020 )
            color = bt709_to_bt2020( color );
        else if ( sourcePrimaries == BT2020 && targetPrimaries == BT709 )
            color = bt2020_to_bt709( color );
        else
            color = float3( 0.0, 1.0, 0.0 );
    }
    return color;
}

float3 Encode( float3 color )
{
    if ( targetColorSpace == sRGB )
        color = linear_to_srgb( color, displayLinear );
    else if ( targetColorSpace == Rec709 || targetColorSpace == Rec2020 )
        color = linear_to_rec709( color, displayLinear );
    else if ( targetColorSpace == Rec2020PQ )
        color = rec2020_linear_to_rec2100PQ( color, displayLinear );
    else if ( targetColorSpace == Rec2020HLG )
        color = rec2020_linear_to_rec2020HLG( color, displayLinear, displayPeakLuminance,
                                              hlgOOTFGamma );
    else if ( targetColorSpace != Rec709Linear )
        color = float3( 0.0, 0.0, 1.0 );
    return color;
}

// Colours far outside 0 to 1 are kept where their arithmetic stays finite: light where a sum of three products does, the
// result where a target of 16-bit floats holds it.
static const float MAX_LIGHT = 1e37;
static const float MAX_RESULT = 65504.0;

float4 ConvertColorSpace( float4 color )
{
    if ( sourceAlphaType == AlphaTypePremultiplied )
        color = unpremultiply( color );
    else if ( sourceAlphaType == AlphaTypeAlphaIsOne )
        color.a = 1.0;

#ifndef ONE_KEEPS_COLORS
    if ( CHANGES_COLORS )
    {
        float3 light = clamp( Linearize( color.rgb ), -MAX_LIGHT, MAX_LIGHT );
        light = ConvertPrimaries( light ) * linearScale;
#ifdef REDUCES_GAMUT
        light = ReduceGamut( light );
#endif
        color.rgb = Encode( light );
    }
#endif
#ifdef COLOR_STAGE
    color.rgb = ChangeColor( color.rgb );
#endif
    color.rgb = clamp( color.rgb, -MAX_RESULT, MAX_RESULT );

    color.a *= 1.0 - transparency;
    if ( targetAlphaType != AlphaTypeNonPremultiplied )
        color = premultiply( color );
    if ( targetAlphaType == AlphaTypeAlphaIsOne )
        color.a = 1.0;
    return color;
}

// What is drawn of a sample.
float4 DrawColor( float4 color )
{
    if ( sourceColorSpace != 0 && targetColorSpace != 0 )
        color = ConvertColorSpace( color );
    else if ( transparency > 0.0 )
        color *= 1.0 - float4( colorTransparency.xxx, transparency );
    return color;
}

// Shaders of frames have samples of their own.
#ifndef FRAME_SHADER

Texture2D shaderTexture: register( t0 );
SamplerState sampleType: register( s0 );

float4 PSMain( PSInput input ): SV_TARGET
{
    // Of a part no texel around it.
    float2 at = clamp( partOrigin + input.uv * partExtent, firstTexel, lastTexel );
    return DrawColor( shaderTexture.Sample( sampleType, partExtent.x > 0.0 ? at : input.uv ) );
}

#endif
