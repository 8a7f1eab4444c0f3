// Root-signature serialisation over the entry points that were loaded. Follows the published rule
// of d3dx12's D3DX12SerializeVersionedRootSignature, which calls them statically.

#include <memory>

#include "Proc/DirectX/Manager/API.h"

namespace Norvex::DX {

namespace {

struct HeapDeleter {
    void operator()(void* memory) const { HeapFree(GetProcessHeap(), 0, memory); }
};
template <class T>
using HeapArray = std::unique_ptr<T[], HeapDeleter>;

// Null for an empty array and when memory ran out.
template <class T>
HeapArray<T> AllocateArray(size_t count) {
    void* memory =
        count == 0 ? nullptr : HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, count * sizeof(T));
    return HeapArray<T>(static_cast<T*>(memory));
}

// A version 1.0 description made of a newer one. 1.1 and 1.2 share the parameters; 1.2 has static
// samplers with flags.
class Description10 {
public:
    // S_OK, E_OUTOFMEMORY, or E_INVALIDARG for what 1.0 cannot say.
    long Convert(const D3D12_VERSIONED_ROOT_SIGNATURE_DESC& source) {
        if (source.Version == D3D_ROOT_SIGNATURE_VERSION_1_1) {
            const auto& desc = source.Desc_1_1;
            m_desc.NumStaticSamplers = desc.NumStaticSamplers;
            m_desc.pStaticSamplers = desc.pStaticSamplers;
            m_desc.Flags = desc.Flags;
            return ConvertParameters(desc.NumParameters, desc.pParameters);
        }
        const auto& desc = source.Desc_1_2;
        m_desc.Flags = desc.Flags;
        const long result = ConvertParameters(desc.NumParameters, desc.pParameters);
        return result == S_OK ? ConvertSamplers(desc.NumStaticSamplers, desc.pStaticSamplers)
                              : result;
    }

    const D3D12_ROOT_SIGNATURE_DESC& Get() const { return m_desc; }

private:
    long ConvertParameters(unsigned count, const D3D12_ROOT_PARAMETER1* source) {
        m_parameters = AllocateArray<D3D12_ROOT_PARAMETER>(count);
        if (count != 0 && m_parameters == nullptr) {
            return E_OUTOFMEMORY;
        }
        if (const long result = AllocateRanges(count, source); result != S_OK) {
            return result;
        }
        D3D12_DESCRIPTOR_RANGE* ranges = m_ranges.get();
        for (unsigned i = 0; i < count; ++i) {
            ranges = ConvertParameter(source[i], m_parameters[i], ranges);
        }
        m_desc.NumParameters = count;
        m_desc.pParameters = m_parameters.get();
        return S_OK;
    }

    long AllocateRanges(unsigned count, const D3D12_ROOT_PARAMETER1* source) {
        size_t total = 0;
        for (unsigned i = 0; i < count; ++i) {
            if (source[i].ParameterType == D3D12_ROOT_PARAMETER_TYPE_DESCRIPTOR_TABLE) {
                total += source[i].DescriptorTable.NumDescriptorRanges;
            }
        }
        m_ranges = AllocateArray<D3D12_DESCRIPTOR_RANGE>(total);
        return total != 0 && m_ranges == nullptr ? E_OUTOFMEMORY : S_OK;
    }

    // Returns the first range after those it filled.
    static D3D12_DESCRIPTOR_RANGE* ConvertParameter(const D3D12_ROOT_PARAMETER1& from,
                                                    D3D12_ROOT_PARAMETER& to,
                                                    D3D12_DESCRIPTOR_RANGE* ranges) {
        to.ParameterType = from.ParameterType;
        to.ShaderVisibility = from.ShaderVisibility;
        switch (from.ParameterType) {
        case D3D12_ROOT_PARAMETER_TYPE_32BIT_CONSTANTS:
            to.Constants = from.Constants;
            return ranges;
        case D3D12_ROOT_PARAMETER_TYPE_CBV:
        case D3D12_ROOT_PARAMETER_TYPE_SRV:
        case D3D12_ROOT_PARAMETER_TYPE_UAV:
            to.Descriptor = {from.Descriptor.ShaderRegister, from.Descriptor.RegisterSpace};
            return ranges;
        case D3D12_ROOT_PARAMETER_TYPE_DESCRIPTOR_TABLE:
            return ConvertTable(from.DescriptorTable, to.DescriptorTable, ranges);
        default: // of a type not known here: the system refuses it
            return ranges;
        }
    }

    static D3D12_DESCRIPTOR_RANGE* ConvertTable(const D3D12_ROOT_DESCRIPTOR_TABLE1& table,
                                                D3D12_ROOT_DESCRIPTOR_TABLE& to,
                                                D3D12_DESCRIPTOR_RANGE* ranges) {
        to = {table.NumDescriptorRanges, ranges};
        for (unsigned i = 0; i < table.NumDescriptorRanges; ++i) {
            const auto& range = table.pDescriptorRanges[i];
            *ranges++ = {range.RangeType, range.NumDescriptors, range.BaseShaderRegister,
                         range.RegisterSpace, range.OffsetInDescriptorsFromTableStart};
        }
        return ranges;
    }

    long ConvertSamplers(unsigned count, const D3D12_STATIC_SAMPLER_DESC1* source) {
        m_samplers = AllocateArray<D3D12_STATIC_SAMPLER_DESC>(count);
        if (count != 0 && m_samplers == nullptr) {
            return E_OUTOFMEMORY;
        }
        for (unsigned i = 0; i < count; ++i) {
            // 1 is the flag for integer border colours, which only matters with such borders.
            if (static_cast<unsigned>(source[i].Flags) > 1) {
                return E_INVALIDARG;
            }
            const auto& s = source[i];
            m_samplers[i] = {s.Filter,          s.AddressU,      s.AddressV,       s.AddressW,
                             s.MipLODBias,      s.MaxAnisotropy, s.ComparisonFunc, s.BorderColor,
                             s.MinLOD,          s.MaxLOD,        s.ShaderRegister, s.RegisterSpace,
                             s.ShaderVisibility};
        }
        m_desc.NumStaticSamplers = count;
        m_desc.pStaticSamplers = m_samplers.get();
        return S_OK;
    }

    D3D12_ROOT_SIGNATURE_DESC m_desc = {};
    HeapArray<D3D12_ROOT_PARAMETER> m_parameters;
    HeapArray<D3D12_DESCRIPTOR_RANGE> m_ranges;
    HeapArray<D3D12_STATIC_SAMPLER_DESC> m_samplers;
};

} // namespace

long API::SerializeRootSignature(const D3D12_VERSIONED_ROOT_SIGNATURE_DESC* desc,
                                 D3D_ROOT_SIGNATURE_VERSION maxVersion, CComPtr<ID3D10Blob>& blob,
                                 CComPtr<ID3D10Blob>& errors) {
    errors.Release();
    if (m_d12SerializeRootSignature == nullptr) {
        return E_DELAY_LOAD_FAILED;
    }
    if (m_d12SerializeVersionedRootSignature != nullptr &&
        maxVersion != D3D_ROOT_SIGNATURE_VERSION_1) {
        if (maxVersion != D3D_ROOT_SIGNATURE_VERSION_1_1 &&
            maxVersion != D3D_ROOT_SIGNATURE_VERSION_1_2) {
            return E_INVALIDARG;
        }
        return m_d12SerializeVersionedRootSignature(desc, &blob, &errors);
    }
    switch (desc->Version) {
    case D3D_ROOT_SIGNATURE_VERSION_1:
        return m_d12SerializeRootSignature(&desc->Desc_1_0, D3D_ROOT_SIGNATURE_VERSION_1, &blob,
                                           &errors);
    case D3D_ROOT_SIGNATURE_VERSION_1_1:
    case D3D_ROOT_SIGNATURE_VERSION_1_2: {
        Description10 converted;
        const long result = converted.Convert(*desc);
        return result == S_OK ? m_d12SerializeRootSignature(
                                    &converted.Get(), D3D_ROOT_SIGNATURE_VERSION_1, &blob, &errors)
                              : result;
    }
    default:
        return E_INVALIDARG;
    }
}

} // namespace Norvex::DX
