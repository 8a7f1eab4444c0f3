// The quad of an image drawer: position through the transform, texture coordinate as it is. The
// transform's third component becomes w, so a quad at z = 1 carries a 2-D affine transform in
// homogeneous form.

cbuffer ParamsBuffer: register( b0 )
{
    matrix transform;
};

struct PSInput
{
    float4 position: SV_POSITION;
    float2 uv: TEXCOORD0;
};

PSInput VSMain( float4 position: POSITION, float2 uv: TEXCOORD )
{
    PSInput output;
    float4 pos = mul( position, transform );
    output.position = float4( pos.x, pos.y, 0.0, pos.z );
    output.uv = uv;
    return output;
}
