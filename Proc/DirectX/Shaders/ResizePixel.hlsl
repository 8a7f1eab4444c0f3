// A texture as it is; the linear sampler averages where the target is smaller.

Texture2D shaderTexture: register( t0 );
SamplerState sampleType: register( s0 );

struct PSInput
{
    float4 position: SV_POSITION;
    float2 uv: TEXCOORD0;
};

float4 PSMain( PSInput input ): SV_TARGET
{
    return shaderTexture.Sample( sampleType, input.uv );
}
