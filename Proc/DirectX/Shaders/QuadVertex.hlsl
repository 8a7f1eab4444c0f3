struct PSInput {
    float4 position: SV_POSITION;
    float2 uv: TEXCOORD0;
};

PSInput VSMain(float4 position: POSITION, float2 uv: TEXCOORD) {
    PSInput output;
    output.position = float4(position.x, position.y, 0.0, position.z);
    output.uv = uv;
    return output;
}
