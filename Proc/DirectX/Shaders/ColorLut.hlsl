// Encoded colours through a table: of each channel by itself, or of all three. Everything is loaded
// and weighed here in single precision; a sampler weighs with few bits, and in cubes.

// The smallest colour of the domain and, in w, how many entries an axis has; entries for one of the
// channels; then the entries, of which red changes fastest.
Buffer<float4> lut: register( t3 );

static const int LUT_HEADER = 2;

float3 LutPlace( float3 color, int size )
{
    return clamp( ( color - lut.Load( 0 ).xyz ) * lut.Load( 1 ).xyz, 0.0, float( size - 1 ) );
}

#if LUT_DIMENSIONS == 1

float3 ChangeColor( float3 color )
{
    int size = int( lut.Load( 0 ).w );
    float3 place = LutPlace( color, size );
    int3 at = min( int3( place ), size - 2 ) + LUT_HEADER;
    float3 before = float3( lut.Load( at.r ).r, lut.Load( at.g ).g, lut.Load( at.b ).b );
    float3 behind =
        float3( lut.Load( at.r + 1 ).r, lut.Load( at.g + 1 ).g, lut.Load( at.b + 1 ).b );
    return lerp( before, behind, place - float3( at - LUT_HEADER ) );
}

#else

float3 LutEntry( int3 at, int size )
{
    return lut.Load( LUT_HEADER + ( at.b * size + at.g ) * size + at.r ).rgb;
}

// A cube of entries is six tetrahedra about the line from its first corner to its last. The way to
// the colour goes along the axis that it lies farthest on, then along the next.
float3 ChangeColor( float3 color )
{
    int size = int( lut.Load( 0 ).w );
    float3 place = LutPlace( color, size );
    int3 at = min( int3( place ), size - 2 );
    float3 way = place - float3( at );
    bool redOverGreen = way.r >= way.g;
    bool redOverBlue = way.r >= way.b;
    bool greenOverBlue = way.g >= way.b;
    int3 first = int3( 0, 0, 1 );
    if ( redOverGreen && redOverBlue )
        first = int3( 1, 0, 0 );
    else if ( !redOverGreen && greenOverBlue )
        first = int3( 0, 1, 0 );
    int3 last = int3( 0, 0, 1 );
    if ( !redOverGreen && !redOverBlue )
        last = int3( 1, 0, 0 );
    else if ( redOverGreen && !greenOverBlue )
        last = int3( 0, 1, 0 );
    float largest = dot( way, float3( first ) );
    float smallest = dot( way, float3( last ) );
    float middle = way.r + way.g + way.b - largest - smallest;
    return LutEntry( at, size ) * ( 1.0 - largest ) +
           LutEntry( at + first, size ) * ( largest - middle ) +
           LutEntry( at + int3( 1, 1, 1 ) - last, size ) * ( middle - smallest ) +
           LutEntry( at + int3( 1, 1, 1 ), size ) * smallest;
}

#endif
