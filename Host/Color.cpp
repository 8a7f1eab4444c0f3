#include "Host/Color.h"

#include <stdexcept>

namespace Norvex::Conf {

namespace {

// Shares of red and blue in luma.
struct LumaWeights {
    double kr;
    double kb;
};

LumaWeights GetLumaWeights(YCbCrMatrix matrix) {
    switch (matrix) {
    case YCbCrMatrix::BT601:
        return {0.299, 0.114};
    case YCbCrMatrix::BT709:
        return {0.2126, 0.0722};
    case YCbCrMatrix::BT2020NonConstant:
        return {0.2627, 0.0593};
    }
    throw std::invalid_argument("Unknown YCbCr matrix");
}

} // namespace

std::array<std::array<double, 3>, 3> GetRGBToYpPbPrMatrix(YCbCrMatrix matrix) {
    const auto [kr, kb] = GetLumaWeights(matrix);
    const double kg = 1.0 - kr - kb;
    const double pbScale = 0.5 / (1.0 - kb);
    const double prScale = 0.5 / (1.0 - kr);
    return {
        {{kr, kg, kb}, {-kr * pbScale, -kg * pbScale, 0.5}, {0.5, -kg * prScale, -kb * prScale}}};
}

} // namespace Norvex::Conf
