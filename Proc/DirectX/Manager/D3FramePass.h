#pragma once

// What drawers and converters of frames keep from one Encode to the next, internal: shaders with
// their pipelines, made when a kind of frame or conversion first needs them, and constant buffers.
// One thread at a time. Throws what devices throw. The shaders: D3FrameShader.h.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "Platform/ComPtr.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/D3D12ShaderParameters.h"
#include "Proc/DirectX/Manager/D3FrameShader.h"
#include "Proc/DirectX/Manager/D3QuadPipeline.h"
#include "Proc/DirectX/Manager/DirectXShader.h"

namespace Norvex::DX {

// A constant buffer that stays while its contents do. Buffer: ID3D11Buffer, ID3D12Resource.
template <class Buffer>
class KeptConstants {
public:
    // make(bytes) makes another.
    template <class Make>
    const CComPtr<Buffer>& Get(std::span<const std::uint8_t> bytes, const Make& make) {
        if (m_buffer == nullptr || !std::ranges::equal(m_bytes, bytes)) {
            m_buffer.Release(); // should it throw
            m_buffer = make(bytes);
            m_bytes.assign(bytes.begin(), bytes.end());
        }
        return m_buffer;
    }

private:
    std::vector<std::uint8_t> m_bytes;
    CComPtr<Buffer> m_buffer;
};

// What was made for keys: those used last.
template <class Made>
class FrameVariants {
public:
    static constexpr std::size_t kMost = 32;

    // The one of the key, which stays at least until kMost others were asked for. make() makes a
    // std::unique_ptr<Made>.
    template <class Make>
    Made& Get(const FrameShaderKey& key, const Make& make) {
        auto found = std::ranges::find(m_made, key, &Entry::first);
        if (found == m_made.end()) {
            m_made.emplace_back(key, make());
            if (m_made.size() > kMost) {
                m_made.erase(m_made.begin());
            }
            found = std::prev(m_made.end());
        }
        std::rotate(found, std::next(found), m_made.end());
        return *m_made.back().second;
    }
    std::size_t GetCount() const { return m_made.size(); }

private:
    using Entry = std::pair<FrameShaderKey, std::unique_ptr<Made>>;
    std::vector<Entry> m_made; // in the order of their use
};

// As they lie in memory.
template <class Params>
std::span<const std::uint8_t> BytesOf(const Params& params) {
    return {reinterpret_cast<const std::uint8_t*>(&params), sizeof(params)};
}

// What a shader reads from t0 on: planes, a color LUT, and the pattern of dither by blue noise.
inline unsigned CountFrameViews(const FrameShaderKey& key) {
    return key.dither == FrameDither::BlueNoise ? 5 : 4;
}

// Root parameters of a pass, in the order in which they are added.
inline constexpr unsigned kFrameImageIndex = 0;
inline constexpr unsigned kFrameConstantsIndex = 1;
inline constexpr unsigned kFramePlanesIndex = 2;

// What draws with one shader on Direct3D 12. The name is what debuggers show, a literal; image: who
// reads b0.
struct D12FramePass {
    D12FramePass(const boost::intrusive_ptr<D12Device>& device, const char* name,
                 const std::string& vertexShader, const FrameShaderKey& key,
                 D3D12_SHADER_VISIBILITY imageReader)
        : pipeline(device, name, vertexShader, GetFrameShader(key)),
          image(AddConstants(0, imageReader)),
          frame(AddConstants(1, D3D12_SHADER_VISIBILITY_PIXEL)),
          planes(pipeline.AddTexture(CountFrameViews(key))) {}

    D12QuadPipeline pipeline;
    boost::intrusive_ptr<D12ConstantBufferView> image;
    boost::intrusive_ptr<D12ConstantBufferView> frame;
    boost::intrusive_ptr<D12ViewTable> planes;
    KeptConstants<ID3D12Resource> frameConstants;

private:
    boost::intrusive_ptr<D12ConstantBufferView> AddConstants(unsigned shaderRegister,
                                                             D3D12_SHADER_VISIBILITY visibility) {
        return pipeline.GetParameters().AddConstantBufferView(
            shaderRegister, 0, D3D12_ROOT_DESCRIPTOR_FLAG_NONE, visibility);
    }
};

// The same on Direct3D 11.
struct D11FramePass {
    D11FramePass(const boost::intrusive_ptr<D11Device>& device, const FrameShaderKey& key)
        : shader(std::make_shared<D11PixelShader>(device, "PSMain", GetFrameShader(key))) {}

    std::shared_ptr<D11PixelShader> shader;
    KeptConstants<ID3D11Buffer> frameConstants;
};

} // namespace Norvex::DX
