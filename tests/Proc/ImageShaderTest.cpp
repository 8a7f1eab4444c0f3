// The image shaders by themselves: they compile without a word on every compiler and target, and
// what the pixel shader computes, drawn here with bare Direct3D 11 in 32-bit floats, agrees with
// the double-precision reference.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3ImageRenderer.h"
#include "tests/support/ColorReference.h"

namespace {

using namespace Norvex;
using Conf::ColorPrimaries;
using Conf::RGBColorSpace;
using Conf::TransferCharacteristics;
using DX::D3ImageRenderer;
using Proc::AlphaType;
using Proc::ColorAlphaConversionInfo;
using Proc::LinearizationMode;
using Test::Pixel;
using Test::ReferenceConvert;

void Check(HRESULT result, const char* what) {
    if (FAILED(result)) {
        throw std::runtime_error(fmt::format("{}: {:#x}", what, static_cast<unsigned>(result)));
    }
}

// Compiles as the library does; `messages` receives what the compiler has to say.
CComPtr<ID3DBlob> Compile(const std::string& text, const char* entry, const char* target,
                          std::string& messages) {
    CComPtr<ID3DBlob> code;
    CComPtr<ID3DBlob> errors;
    const HRESULT result =
        D3DCompile2(text.data(), text.size(), nullptr, nullptr, nullptr, entry, target,
                    D3DCOMPILE_ENABLE_STRICTNESS | D3DCOMPILE_OPTIMIZATION_LEVEL3, 0, 0, nullptr, 0,
                    &code, &errors);
    if (errors) {
        messages.assign(static_cast<const char*>(errors->GetBufferPointer()),
                        errors->GetBufferSize());
        messages.erase(std::min(messages.find('\0'), messages.size()));
    }
    Check(result, messages.c_str());
    return code;
}

TEST(ImageShaderTest, CompilesWithoutAWarning) {
    for (const std::string model : {"4_0", "5_0"}) {
        std::string messages;
        EXPECT_NO_THROW(Compile(D3ImageRenderer::GetVertexShader(), "VSMain",
                                ("vs_" + model).c_str(), messages));
        EXPECT_EQ(messages, "");
        EXPECT_NO_THROW(Compile(D3ImageRenderer::GetPixelShader(), "PSMain",
                                ("ps_" + model).c_str(), messages));
        EXPECT_EQ(messages, "");
    }
}

// Draws the conversion of one row of colours, one pixel each.
class ShaderRunner {
public:
    ShaderRunner() {
        Check(D3D11CreateDevice(nullptr, D3D_DRIVER_TYPE_HARDWARE, nullptr, 0, nullptr, 0,
                                D3D11_SDK_VERSION, &m_device, nullptr, &m_context),
              "device");
        std::string messages;
        const auto vertexCode =
            Compile(D3ImageRenderer::GetVertexShader(), "VSMain", "vs_4_0", messages);
        const auto pixelCode =
            Compile(D3ImageRenderer::GetPixelShader(), "PSMain", "ps_4_0", messages);
        Check(m_device->CreateVertexShader(vertexCode->GetBufferPointer(),
                                           vertexCode->GetBufferSize(), nullptr, &m_vertexShader),
              "vertex shader");
        Check(m_device->CreatePixelShader(pixelCode->GetBufferPointer(), pixelCode->GetBufferSize(),
                                          nullptr, &m_pixelShader),
              "pixel shader");
        const D3D11_INPUT_ELEMENT_DESC elements[] = {
            {"POSITION", 0, DXGI_FORMAT_R32G32B32_FLOAT, 0, 0, D3D11_INPUT_PER_VERTEX_DATA, 0},
            {"TEXCOORD", 0, DXGI_FORMAT_R32G32_FLOAT, 0, 12, D3D11_INPUT_PER_VERTEX_DATA, 0}};
        Check(m_device->CreateInputLayout(elements, 2, vertexCode->GetBufferPointer(),
                                          vertexCode->GetBufferSize(), &m_layout),
              "layout");
        const float quad[] = {-1, -1, 1, 0, 1, -1, 1, 1, 0, 0, 1, -1, 1, 1, 1, 1, 1, 1, 1, 0};
        m_quad = MakeBuffer(quad, sizeof(quad), D3D11_BIND_VERTEX_BUFFER);
        D3D11_SAMPLER_DESC sampler{};
        sampler.Filter = D3D11_FILTER_MIN_MAG_MIP_POINT;
        sampler.AddressU = sampler.AddressV = sampler.AddressW = D3D11_TEXTURE_ADDRESS_CLAMP;
        Check(m_device->CreateSamplerState(&sampler, &m_sampler), "sampler");
    }

    std::vector<Pixel> Convert(const std::vector<Pixel>& colors,
                               const std::optional<ColorAlphaConversionInfo>& conversion) {
        const std::vector<float> values = ToFloats(colors);
        const UINT width = static_cast<UINT>(colors.size());
        const auto source =
            MakeTexture(width, values.data(), D3D11_USAGE_DEFAULT, D3D11_BIND_SHADER_RESOURCE);
        const auto target =
            MakeTexture(width, nullptr, D3D11_USAGE_DEFAULT, D3D11_BIND_RENDER_TARGET);
        Draw(source, target, width, D3ImageRenderer::MakeParamsBuffer({}, conversion));
        return Read(target, width);
    }

private:
    static std::vector<float> ToFloats(const std::vector<Pixel>& colors) {
        std::vector<float> values;
        for (const Pixel& color : colors) {
            for (const double channel : color) {
                values.push_back(static_cast<float>(channel));
            }
        }
        return values;
    }

    CComPtr<ID3D11Buffer> MakeBuffer(const void* data, std::size_t size, UINT bind) {
        const D3D11_BUFFER_DESC desc{static_cast<UINT>(size), D3D11_USAGE_DEFAULT, bind, 0, 0, 0};
        const D3D11_SUBRESOURCE_DATA content{data, 0, 0};
        CComPtr<ID3D11Buffer> buffer;
        Check(m_device->CreateBuffer(&desc, &content, &buffer), "buffer");
        return buffer;
    }

    CComPtr<ID3D11Texture2D> MakeTexture(UINT width, const float* data, D3D11_USAGE usage,
                                         UINT bind) {
        const D3D11_TEXTURE2D_DESC desc{width,
                                        1,
                                        1,
                                        1,
                                        DXGI_FORMAT_R32G32B32A32_FLOAT,
                                        {1, 0},
                                        usage,
                                        bind,
                                        usage == D3D11_USAGE_STAGING ? UINT{D3D11_CPU_ACCESS_READ}
                                                                     : 0,
                                        0};
        const D3D11_SUBRESOURCE_DATA content{data, width * 16, 0};
        CComPtr<ID3D11Texture2D> texture;
        Check(m_device->CreateTexture2D(&desc, data != nullptr ? &content : nullptr, &texture),
              "texture");
        return texture;
    }

    void Draw(ID3D11Texture2D* source, ID3D11Texture2D* target, UINT width,
              const std::vector<std::uint8_t>& params) {
        CComPtr<ID3D11ShaderResourceView> view;
        Check(m_device->CreateShaderResourceView(source, nullptr, &view), "view");
        CComPtr<ID3D11RenderTargetView> targetView;
        Check(m_device->CreateRenderTargetView(target, nullptr, &targetView), "target view");
        const auto constants = MakeBuffer(params.data(), params.size(), D3D11_BIND_CONSTANT_BUFFER);
        const D3D11_VIEWPORT viewport{0, 0, static_cast<float>(width), 1, 0, 1};
        const UINT stride = 20;
        const UINT offset = 0;
        m_context->RSSetViewports(1, &viewport);
        m_context->OMSetRenderTargets(1, &targetView.p, nullptr);
        m_context->IASetInputLayout(m_layout);
        m_context->IASetVertexBuffers(0, 1, &m_quad.p, &stride, &offset);
        m_context->IASetPrimitiveTopology(D3D11_PRIMITIVE_TOPOLOGY_TRIANGLESTRIP);
        m_context->VSSetShader(m_vertexShader, nullptr, 0);
        m_context->VSSetConstantBuffers(0, 1, &constants.p);
        m_context->PSSetShader(m_pixelShader, nullptr, 0);
        m_context->PSSetConstantBuffers(0, 1, &constants.p);
        m_context->PSSetShaderResources(0, 1, &view.p);
        m_context->PSSetSamplers(0, 1, &m_sampler.p);
        m_context->Draw(4, 0);
    }

    std::vector<Pixel> Read(ID3D11Texture2D* target, UINT width) {
        const auto staging = MakeTexture(width, nullptr, D3D11_USAGE_STAGING, 0);
        m_context->CopyResource(staging, target);
        D3D11_MAPPED_SUBRESOURCE mapped{};
        Check(m_context->Map(staging, 0, D3D11_MAP_READ, 0, &mapped), "map");
        std::vector<float> values(std::size_t{width} * 4);
        std::memcpy(values.data(), mapped.pData, values.size() * sizeof(float));
        m_context->Unmap(staging, 0);
        std::vector<Pixel> colors(width);
        for (std::size_t i = 0; i < values.size(); ++i) {
            colors[i / 4][i % 4] = values[i];
        }
        return colors;
    }

    CComPtr<ID3D11Device> m_device;
    CComPtr<ID3D11DeviceContext> m_context;
    CComPtr<ID3D11VertexShader> m_vertexShader;
    CComPtr<ID3D11PixelShader> m_pixelShader;
    CComPtr<ID3D11InputLayout> m_layout;
    CComPtr<ID3D11Buffer> m_quad;
    CComPtr<ID3D11SamplerState> m_sampler;
};

class ImageShaderDrawTest : public testing::Test {
protected:
    ShaderRunner m_runner;
};

// What 16 bits a channel may be off, 8 x 3/65535; PQ spends most of it, since its decoding in
// single precision amplifies the last bits of a power.
constexpr double kShownTolerance = 8.0 * 3.0 / 65535.0;
// Outside the shown range: light far out of gamut is the difference of large numbers.
constexpr double kWholeTolerance = 2e-3;

unsigned CodeOf(const RGBColorSpace& space) {
    return static_cast<unsigned>(space.primaries) * 256 + static_cast<unsigned>(space.transfer);
}

// A cube of colours with values below zero and above one, greys, and random colours with alphas
// from 0 to 1, in the precision of the texture.
std::vector<Pixel> MakeColors() {
    std::vector<Pixel> colors;
    const double steps[] = {-4.0, -0.5, -0.01, 0.0, 0.02, 0.3, 0.5, 0.9, 1.0, 1.5, 12.0, 100.0};
    for (const double red : steps) {
        for (const double green : steps) {
            for (const double blue : steps) {
                colors.push_back({red, green, blue, 1.0});
            }
        }
    }
    for (int level = 0; level <= 255; ++level) {
        colors.push_back({level / 255.0, level / 255.0, level / 255.0, 0.5});
    }
    // The ends of 16-bit floats: the largest and the smallest above zero.
    colors.push_back({65504.0, 65504.0, 65504.0, 6e-8});
    colors.push_back({65504.0, -65504.0, 6e-8, 1.0});
    colors.push_back({-65504.0, 6e-8, 6e-8, 6e-8});
    std::mt19937 random(20);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    while (colors.size() < 2500) {
        const double alpha = colors.size() % 8 == 0 ? 0.0 : unit(random);
        colors.push_back({unit(random), unit(random), unit(random), alpha});
    }
    for (Pixel& color : colors) {
        std::ranges::transform(color, color.begin(),
                               [](double value) { return static_cast<float>(value); });
    }
    return colors;
}

constexpr RGBColorSpace kSpaces[] = {
    {ColorPrimaries::BT709, TransferCharacteristics::sRGB},
    {ColorPrimaries::BT709, TransferCharacteristics::BT709},
    {ColorPrimaries::BT709, TransferCharacteristics::Linear},
    {ColorPrimaries::BT2020, TransferCharacteristics::BT709},
    {ColorPrimaries::BT2020, TransferCharacteristics::Linear},
    {ColorPrimaries::BT2020, TransferCharacteristics::PQ},
    {ColorPrimaries::BT2020, TransferCharacteristics::HLG},
};

// Every pair of spaces six times: each mode with each of two mastering peaks. Alpha pairs and
// scales go round.
std::vector<ColorAlphaConversionInfo> MakeConversions() {
    std::vector<ColorAlphaConversionInfo> conversions;
    for (const RGBColorSpace& source : kSpaces) {
        for (const RGBColorSpace& target : kSpaces) {
            for (unsigned i = 0; i < 6; ++i) {
                const auto run = static_cast<unsigned>(conversions.size());
                ColorAlphaConversionInfo info;
                info.source = source;
                info.target = target;
                info.mode = static_cast<LinearizationMode>(i % 3);
                info.sourcePeakLuminance = i < 3 ? 1000.0F : 4000.0F;
                info.targetPeakLuminance = i < 3 ? 1000.0F : 100.0F;
                info.linearScale = run % 5 == 0 ? 203.0F / 80.0F : 1.0F;
                info.sourceAlpha = static_cast<AlphaType>(run % 9 / 3);
                info.targetAlpha = static_cast<AlphaType>(run % 3);
                conversions.push_back(info);
            }
        }
    }
    return conversions;
}

struct Errors {
    double shown = 0.0; // of a channel, both values cut to 0 to 1 as a UNORM target does
    double whole =
        0.0; // of a channel, relative to the pixel's largest above one; infinite if not a number
};

Errors Compare(const std::vector<Pixel>& actual, const std::vector<Pixel>& sources,
               const ColorAlphaConversionInfo& info) {
    Errors errors;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        const Pixel expected = ReferenceConvert(sources[i], info);
        double largest = 1.0;
        for (const double value : expected) {
            largest = std::max(largest, std::abs(value));
        }
        for (std::size_t c = 0; c < 4; ++c) {
            const double got = std::isfinite(actual[i][c]) ? actual[i][c] : HUGE_VAL;
            const double shown =
                std::abs(std::clamp(got, 0.0, 1.0) - std::clamp(expected[c], 0.0, 1.0));
            errors.shown = std::max(errors.shown, shown);
            errors.whole = std::max(errors.whole, std::abs(got - expected[c]) / largest);
        }
    }
    return errors;
}

TEST_F(ImageShaderDrawTest, EveryConversionAgreesWithTheReference) {
    const std::vector<Pixel> colors = MakeColors();
    for (const ColorAlphaConversionInfo& info : MakeConversions()) {
        const Errors errors = Compare(m_runner.Convert(colors, info), colors, info);
        SCOPED_TRACE(
            fmt::format("source {:#x} target {:#x} mode {} alpha {} to {} scale {} peaks {} to {}",
                        CodeOf(info.source), CodeOf(info.target), static_cast<int>(info.mode),
                        static_cast<int>(info.sourceAlpha), static_cast<int>(info.targetAlpha),
                        info.linearScale, info.sourcePeakLuminance, info.targetPeakLuminance));
        EXPECT_LE(errors.shown, kShownTolerance);
        EXPECT_LE(errors.whole, kWholeTolerance);
    }
}

TEST_F(ImageShaderDrawTest, WithoutConversionTheSampleIsDrawnAsItIs) {
    const std::vector<Pixel> colors = MakeColors();
    EXPECT_EQ(m_runner.Convert(colors, std::nullopt), colors);
}

TEST_F(ImageShaderDrawTest, UnsupportedSpacesShowErrorColors) {
    constexpr RGBColorSpace kSRGB = kSpaces[0];
    constexpr RGBColorSpace kOther = {static_cast<ColorPrimaries>(5),
                                      TransferCharacteristics::BT709};
    const struct {
        RGBColorSpace source;
        RGBColorSpace target;
        Pixel expected;
    } cases[] = {
        {kSpaces[2], kSRGB, {1.0, 0.0, 0.0, 0.5}},
        {kOther, kSRGB, {0.0, 1.0, 0.0, 0.5}},
        {kSRGB, kSpaces[4], {0.0, 0.0, 1.0, 0.5}},
    };
    for (const auto& [source, target, expected] : cases) {
        ColorAlphaConversionInfo info;
        info.source = source;
        info.target = target;
        const Pixel actual = m_runner.Convert({{0.2, 0.4, 0.6, 0.5}}, info)[0];
        for (std::size_t c = 0; c < 4; ++c) {
            EXPECT_NEAR(actual[c], expected[c], 1e-6);
        }
    }
}

} // namespace
