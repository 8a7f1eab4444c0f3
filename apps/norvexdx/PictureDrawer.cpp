#include "apps/norvexdx/PictureDrawer.h"

#include <numbers>

#include "Proc/DirectX/Manager/D3D12DescriptorHeap.h"
#include "apps/norvexdx/Stopwatch.h"

namespace Norvex::App {

namespace {

constexpr unsigned kBitsOfReducedPictures = 16; // so that several steps do not add up errors

// Premultiplied colour over what is there.
DX::D12BlendState MakeOverBlend() {
    DX::D12RenderTargetBlend blend;
    blend.destBlend = D3D12_BLEND_INV_SRC_ALPHA;
    blend.destBlendAlpha = D3D12_BLEND_INV_SRC_ALPHA;
    DX::D12BlendState state;
    state.targets = {blend};
    return state;
}

bool IsReducible(const DX::D12Descriptor& picture) {
    const DX::Size2DT<long> size = picture.GetSize();
    return size.width > 1 || size.height > 1;
}

} // namespace

ViewRenderer::ViewRenderer(const boost::intrusive_ptr<DX::D12Device>& device, const View& view)
    : D12ImageRenderer(device) {
    SetFitMode(view.fit);
    if (view.scale) {
        SetScale(*view.scale);
    }
    SetRotation(view.rotationDegrees * std::numbers::pi_v<float> / 180.0F);
    SetTranslation(view.translation[0], view.translation[1]);
}

ViewRenderer::Placement ViewRenderer::Place(const DX::Size2DT<long>& source,
                                            const DX::Size2DT<long>& target) {
    const std::lock_guard lock(m_viewMutex);
    UpdateTransform(source, target);
    return {GetTransform(), GetEffectiveScale()};
}

PictureDrawer::PictureDrawer(const GraphicsDevice& graphics, const View& view, bool blends)
    : m_graphics(graphics) {
    const Stopwatch stopwatch;
    m_renderer = new ViewRenderer(graphics.device, view);
    m_shaderCompilationMs = stopwatch.GetMilliseconds();
    if (blends) {
        m_renderer->SetBlendState(MakeOverBlend());
    }
}

PictureDrawer::Result
PictureDrawer::Draw(const boost::intrusive_ptr<DX::D12Descriptor>& source, const Canvas& canvas,
                    const std::optional<Proc::ColorAlphaConversionInfo>& conversion,
                    const std::optional<DX::Rect2DT<long>>& rect,
                    const std::optional<Proc::ColorF>& background) {
    const DX::Size2DT<long> targetSize =
        rect ? DX::Size2DT<long>{rect->right - rect->left, rect->bottom - rect->top}
             : canvas.GetSize();
    const ViewRenderer::Placement placement = m_renderer->Place(source->GetSize(), targetSize);
    const auto allocator = m_graphics.queue->CreateCommandAllocator();
    if (background) {
        allocator->ClearRenderTargetView(canvas.GetTarget(), *background, {});
    }
    auto picture = source;
    for (float scale = placement.scale; scale < 0.5F && IsReducible(*picture); scale *= 2.0F) {
        picture = Halve(allocator, picture);
    }
    m_renderer->Encode(allocator, picture, canvas.GetTarget(), placement.transform, conversion,
                       rect);
    const Stopwatch stopwatch;
    allocator->Execute();
    allocator->WaitComplete();
    return {placement.transform, stopwatch.GetMilliseconds()};
}

boost::intrusive_ptr<DX::D12Descriptor>
PictureDrawer::Halve(const boost::intrusive_ptr<DX::D12CommandAllocator>& allocator,
                     const boost::intrusive_ptr<DX::D12Descriptor>& source) {
    const DX::Size2DT<long> size = source->GetSize();
    const Canvas half(m_graphics, {(size.width + 1) / 2, (size.height + 1) / 2},
                      kBitsOfReducedPictures);
    GetCopier()->Encode(allocator, source, half.GetTarget(), std::nullopt, std::nullopt);
    allocator->ResourceBarrier({half.GetTarget()->Transition(
        D3D12_RESOURCE_STATE_RENDER_TARGET, D3D12_RESOURCE_STATE_PIXEL_SHADER_RESOURCE,
        D3D12_RESOURCE_BARRIER_ALL_SUBRESOURCES, D3D12_RESOURCE_BARRIER_FLAG_NONE)});
    return m_graphics.device->CreateTextureShaderResourceView(half.GetTarget()->GetFirstResource());
}

const boost::intrusive_ptr<DX::D12ImageDraw>& PictureDrawer::GetCopier() {
    const std::lock_guard lock(m_copierMutex);
    if (!m_copier) {
        m_copier = new DX::D12ImageDraw(m_graphics.device);
    }
    return m_copier;
}

} // namespace Norvex::App
