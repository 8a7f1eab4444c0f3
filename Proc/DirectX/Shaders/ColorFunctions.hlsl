// Colour transfer functions. Linear light is 1.0 at SDR white, or at 100 cd/m2 where luminance is
// absolute (PQ, displayed HLG). "Scene" is light before the camera, "display" light of the screen;
// displayLinear selects the latter.
//
// Both sides of a conditional are evaluated, so arguments of pow and log are kept in their range on
// the side that is not taken too; where a formula is in use its value is unchanged. Every function
// has its own name: not all compilers know overloads.

float3 signed_pow( float3 c, float exponent )
{
    return sign( c ) * pow( abs( c ), exponent );
}

// ITU-R BT.709-6, item 1.2, and its inverse.
float3 rec709_to_scene_linear( float3 c )
{
    return c < 0.081 ? c / 4.5 : pow( max( ( c + 0.099 ) / 1.099, 0.0 ), 1.0 / 0.45 );
}

float3 scene_linear_to_rec709( float3 c )
{
    return c < 0.018 ? 4.5 * c : 1.099 * pow( max( c, 0.0 ), 0.45 ) - 0.099;
}

// ITU-R BT.1886 with black at zero.
float3 rec709_to_display_linear( float3 c )
{
    return signed_pow( c, 2.4 );
}

float3 display_linear_to_rec709( float3 c )
{
    return signed_pow( c, 1.0 / 2.4 );
}

// IEC 61966-2-1.
float3 srgb_to_display_linear( float3 c )
{
    return c <= 0.04045 ? c / 12.92 : pow( max( ( c + 0.055 ) / 1.055, 0.0 ), 2.4 );
}

float3 display_linear_to_srgb( float3 c )
{
    return c <= 0.0031308 ? 12.92 * c : 1.055 * pow( max( c, 0.0 ), 1.0 / 2.4 ) - 0.055;
}

// Between the two kinds of light, through the Rec. 709 camera and the BT.1886 screen.
float3 display_to_scene_linear( float3 pixel )
{
    return rec709_to_scene_linear( display_linear_to_rec709( pixel ) );
}

float3 scene_to_display_linear( float3 pixel )
{
    return rec709_to_display_linear( scene_linear_to_rec709( pixel ) );
}

float3 rec709_to_linear( float3 pixel, bool displayLinear )
{
    if ( displayLinear )
        pixel = rec709_to_display_linear( pixel );
    else
        pixel = rec709_to_scene_linear( pixel );
    return pixel;
}

float3 linear_to_rec709( float3 pixel, bool displayLinear )
{
    if ( displayLinear )
        pixel = display_linear_to_rec709( pixel );
    else
        pixel = scene_linear_to_rec709( pixel );
    return pixel;
}

float3 srgb_to_linear( float3 pixel, bool displayLinear )
{
    float3 light = srgb_to_display_linear( pixel );
    if ( !displayLinear )
        light = display_to_scene_linear( light );
    return light;
}

float3 linear_to_srgb( float3 pixel, bool displayLinear )
{
    if ( !displayLinear )
        pixel = scene_to_display_linear( pixel );
    return display_linear_to_srgb( pixel );
}

// SMPTE ST 2084. The powers of 1/m2 and m2 are of numbers so near to 1 that single precision leaves
// little of what they differ by, and c2 - c3 e is the small difference of great numbers. So it is
// with 1 - e that this computes: c1 = 1 - c2 + c3, so that e - c1 is k - (1 - e), and c2 - c3 e is
// k + c3 (1 - e), where k = c2 - c3.
static const float PQ_M1 = 2610.0 / 16384.0;
static const float PQ_M2 = 2523.0 / 4096.0 * 128.0;
static const float PQ_C3 = 2392.0 / 4096.0 * 32.0;
static const float PQ_K = ( 2413.0 - 2392.0 ) / 4096.0 * 32.0;
static const float PQ_M1_INV = 16384.0 / 2610.0;
static const float LN_2 = 0.693147181;
// A signal whose light is below 0, so that 0 is none.
static const float PQ_NO_LIGHT = 5e-7;

// 1 - exp(t) for t from -0.19 to 0, relative to its size.
float3 one_minus_exp( float3 t )
{
    float3 sum = 1.0 + t / 6.0;
    sum = 1.0 + t / 5.0 * sum;
    sum = 1.0 + t / 4.0 * sum;
    sum = 1.0 + t / 3.0 * sum;
    return -t * ( 1.0 + t / 2.0 * sum );
}

float3 pq_decode( float3 v )
{
    float3 d = one_minus_exp( log2( max( saturate( v ), PQ_NO_LIGHT ) ) * ( LN_2 / PQ_M2 ) );
    return 100.0 * pow( max( PQ_K - d, 0.0 ) / ( PQ_K + PQ_C3 * d ), PQ_M1_INV );
}

// log(1 - d) = -2 artanh(d / (2 - d)).
float3 pq_encode( float3 v )
{
    float3 y = pow( saturate( v * 0.01 ), PQ_M1 );
    float3 d = PQ_K * ( 1.0 - y ); // of 1 + c3 y
    float3 z = d / ( 2.0 + 2.0 * PQ_C3 * y - d );
    float3 square = z * z;
    float3 series = 1.0 + square * ( 1.0 / 3.0 + square * ( 1.0 / 5.0 + square / 7.0 ) );
    return exp2( z * series * ( -2.0 * PQ_M2 / LN_2 ) );
}

float3 pq_tonemap( float3 light, float tonemapA, float tonemapB )
{
    float m = max( max( light.r, light.g ), light.b );
    float divisor = 1.0 + tonemapB * m;
    if ( tonemapA > 0.0 && m > 0.0 && divisor != 0.0 )
        light *= ( 1.0 + tonemapA * m ) / divisor;
    return light;
}

float3 pq_light_to_rec2020_linear( float3 light, bool displayLinear )
{
    if ( !displayLinear )
        light = display_to_scene_linear( light );
    return light;
}

float3 rec2100PQ_to_rec2020_linear( float3 pixel, bool displayLinear, float tonemapA,
                                    float tonemapB )
{
    float3 light = pq_tonemap( pq_decode( pixel ), tonemapA, tonemapB );
    return pq_light_to_rec2020_linear( light, displayLinear );
}

float3 rec2020_linear_to_rec2100PQ( float3 pixel, bool displayLinear )
{
    if ( !displayLinear )
        pixel = scene_to_display_linear( pixel );
    return pq_encode( pixel );
}

// ARIB STD-B67 and ITU-R BT.2100-2, table 5; scene light from 0 to 12.
static const float HLG_A = 0.17883277;
static const float HLG_B = 0.28466892;
static const float HLG_C = 0.55991073;
static const float HLG_A_INV = 1.0 / 0.17883277;

float3 hlg_decode( float3 v )
{
    v = saturate( v );
    return v < 0.5 ? 4.0 * v * v : exp( ( v - HLG_C ) * HLG_A_INV ) + HLG_B;
}

float3 hlg_encode( float3 s )
{
    s = clamp( s, 0.0, 12.0 );
    return s < 1.0 ? 0.5 * sqrt( s ) : HLG_A * log( max( s, 1.0 ) - HLG_B ) + HLG_C;
}

float rec2020_luminance( float3 color )
{
    return dot( color, float3( 0.2627, 0.6780, 0.0593 ) );
}

// Black stays black at every gamma.
float3 rec2020HLG_to_rec2020_linear( float3 pixel, bool displayLinear,
                                     float displayPeakLuminance, float gamma )
{
    float3 light = hlg_decode( pixel );
    if ( displayLinear )
    {
        light = saturate( light / 12.0 );
        float y = rec2020_luminance( light );
        if ( y > 0.0 )
            light *= pow( abs( y ), gamma - 1.0 ) * displayPeakLuminance / 100.0;
    }
    return light;
}

float3 rec2020_linear_to_rec2020HLG( float3 pixel, bool displayLinear,
                                     float displayPeakLuminance, float gamma )
{
    if ( displayLinear && displayPeakLuminance > 0.0 && gamma > 0.0 )
    {
        float3 color = saturate( pixel * 100.0 / displayPeakLuminance );
        float y = rec2020_luminance( color );
        float3 scene = color * pow( max( y, 0.0001 ), 1.0 / gamma - 1.0 ) * 12.0;
        pixel = y > 0.0001 ? scene : pixel;
    }
    return hlg_encode( pixel );
}

// Linear light between the primaries of ITU-R BT.709 and BT.2020 (ITU-R BT.2087).
float3 bt709_to_bt2020( float3 c )
{
    return float3( dot( c, float3( 0.627402, 0.329292, 0.043306 ) ),
                   dot( c, float3( 0.069095, 0.919544, 0.011360 ) ),
                   dot( c, float3( 0.016394, 0.088028, 0.895578 ) ) );
}

float3 bt2020_to_bt709( float3 c )
{
    return float3( dot( c, float3( 1.660496, -0.587656, -0.072840 ) ),
                   dot( c, float3( -0.124547, 1.132895, -0.008348 ) ),
                   dot( c, float3( -0.018154, -0.100597, 1.118751 ) ) );
}

float4 premultiply( float4 color )
{
    return float4( color.rgb * color.a, color.a );
}

float4 unpremultiply( float4 color )
{
    if ( color.a > 0.0 )
        color.rgb /= color.a;
    return color;
}
