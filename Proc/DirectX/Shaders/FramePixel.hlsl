// One place of a frame, drawn as an image is.

float4 PSMain( PSInput input ): SV_TARGET
{
    float2 at = input.uv;
    if ( partExtent.x > 0.0 )
        at = clamp( partOrigin + input.uv * partExtent, firstTexel, lastTexel );
    return DrawColor( ColorOfSamples( SampleFrame( at * float2( lastLuma + int2( 1, 1 ) ) ) ) );
}
