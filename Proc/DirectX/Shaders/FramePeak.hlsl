// The largest channel of a block of pixels of a frame: a pass of the reduction to one pixel. What a
// pass makes is to the next a frame in RGB that has red alone.

static const int PEAK_BLOCK = 16;

float PSMain( PSInput input ): SV_TARGET
{
    int2 from = int2( input.position.xy ) * PEAK_BLOCK;
    int2 last = min( from + PEAK_BLOCK - 1, lastLuma );
    float largest = 0.0;
    [loop]
    for ( int y = from.y; y <= last.y; ++y )
    {
        [loop]
        for ( int x = from.x; x <= last.x; ++x )
        {
            float3 color = ColorOfSamples( LoadFrame( int2( x, y ) ) ).rgb;
            largest = max( largest, max( max( color.r, color.g ), color.b ) );
        }
    }
    return largest;
}
