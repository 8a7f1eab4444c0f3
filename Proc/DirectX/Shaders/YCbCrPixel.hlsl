// One RGB sample as Y' and as C'b C'r, in the codes of a quantised signal divided by 2^bits. The
// first target is the luma plane, the second the chroma in full resolution.

cbuffer ParamsBuffer: register( b0 )
{
    uint sourceAlphaType;
    matrix yCbCrMatrix;
    float3 min;
    float3 max;
    float3 translation;
    float3 scale;
    float3 norm;
};

Texture2D shaderTexture: register( t0 );
SamplerState sampleType: register( s0 );

struct PSInput
{
    float4 position: SV_POSITION;
    float2 uv: TEXCOORD0;
};

struct PSOutput
{
    float colorY: SV_TARGET0;
    float2 colorUV: SV_TARGET1;
};

PSOutput PSMain( PSInput input )
{
    float4 color = shaderTexture.Sample( sampleType, input.uv );
    if ( sourceAlphaType == AlphaTypeNonPremultiplied )
    {
        color.rgb *= color.a;
    }
    float3 YPbPr = mul( color, yCbCrMatrix ).xyz;
    float3 YpCbCr = YPbPr * scale + translation;
    YpCbCr = clamp( YpCbCr, min, max ) / norm;

    PSOutput output;
    output.colorY = YpCbCr.x;
    output.colorUV = YpCbCr.yz;
    return output;
}
