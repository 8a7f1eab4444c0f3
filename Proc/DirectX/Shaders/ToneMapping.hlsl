// Light of PQ and colours of BT.2020 brought into a target's range: D3ToneMapping.h. A shader is made
// for one TONE_CURVE, with LIFTS_BLACK or without.

#define TONE_MAX_RGB 1
#define TONE_PER_CHANNEL 2

static const float LEAST_LIGHT = 1e-30;

float Largest( float3 color )
{
    return max( max( color.r, color.g ), color.b );
}

#ifdef TONE_CURVE

// ITU-R BT.2390-11, 5.4.1, from values of PQ to values of PQ; T(B) and P(B) as one polynomial.
float3 ApplyToneCurve( float3 signal )
{
    float3 e = min( ( signal - toneBlack ) * toneInverseRange, 1.0 );
    float3 t = max( e - toneKnee, 0.0 ) * toneInverseRest;
    float3 high = toneKnee + t * ( 1.0 - toneKnee +
                                   t * ( 3.0 * tonePeak - toneKnee - 2.0 +
                                         t * ( 1.0 + toneKnee - 2.0 * tonePeak ) ) );
    return e < toneKnee ? signal : high * toneRange + toneBlack;
}

float3 LiftBlack( float3 signal )
{
#ifdef LIFTS_BLACK
    float3 e = ( signal - toneBlack ) * toneInverseRange;
    signal += toneLift * pow( saturate( 1.0 - e ), toneLiftPower );
#endif
    return signal;
}

float3 MapTones( float3 signal )
{
    signal = saturate( signal );
#if TONE_CURVE == TONE_MAX_RGB
    float3 largest = float3( Largest( signal ), 0.0, 0.0 );
    float from = pq_decode( largest ).x;
    float to = pq_decode( ApplyToneCurve( largest ) ).x;
    float3 light = pq_decode( signal ) * ( from > LEAST_LIGHT ? to / max( from, LEAST_LIGHT ) : 1.0 );
#ifdef LIFTS_BLACK
    light = pq_decode( LiftBlack( pq_encode( light ) ) );
#endif
    return light;
#else
    return pq_decode( LiftBlack( ApplyToneCurve( signal ) ) );
#endif
}

#endif

#ifdef REDUCES_GAMUT

// How far from grey a colour is: 0 is grey, 1 is the edge of BT.709, the farthest is the blue of
// BT.2020. From the knee on what lies up to the farthest is squeezed into what lies up to the edge.
static const float GAMUT_KNEE = 0.8;
static const float GAMUT_FARTHEST = 2.228;
static const float GAMUT_SQUEEZE = 1.0 / ( 1.0 - GAMUT_KNEE ) - 1.0 / ( GAMUT_FARTHEST - GAMUT_KNEE );

// The same upwards: 1 is where the largest channel is the brightest that there is, and the farthest
// is infinitely far.
static const float BRIGHT_KNEE = 0.9;
static const float LEAST_ROOM = 1e-6;
static const float FARTHEST_BRIGHT = 1e6;

float3 ReduceBrightness( float3 color, float y )
{
    float room = toneBrightest - y;
    float distance = min( ( Largest( color ) - y ) / max( room, LEAST_ROOM ), FARTHEST_BRIGHT );
    float beyond = max( distance - BRIGHT_KNEE, 0.0 );
    float squeezed = BRIGHT_KNEE + beyond / ( 1.0 + beyond / ( 1.0 - BRIGHT_KNEE ) );
    float share = beyond > 0.0 ? squeezed / max( distance, BRIGHT_KNEE ) : 1.0;
    return y + ( color - y ) * ( room > 0.0 ? share : 0.0 );
}

// Linear light of BT.709, 1.0 is white.
float3 ReduceGamut( float3 color )
{
    float y = dot( color, float3( 0.2126, 0.7152, 0.0722 ) );
    float least = min( min( color.r, color.g ), color.b );
    float distance = ( y - least ) / max( y, LEAST_LIGHT );
    float beyond = max( distance - GAMUT_KNEE, 0.0 );
    float squeezed = GAMUT_KNEE + beyond / ( 1.0 + GAMUT_SQUEEZE * beyond );
    if ( y > LEAST_LIGHT )
    {
        color = y + ( color - y ) * ( beyond > 0.0 ? squeezed / max( distance, GAMUT_KNEE ) : 1.0 );
        color = ReduceBrightness( color, y );
    }
    return color;
}

#endif
