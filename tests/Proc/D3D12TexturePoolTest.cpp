#include <atomic>
#include <thread>

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/D3D12TexturePool.h"
#include "tests/support/DeviceTest.h"
#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"
#include "tests/support/Thrown.h"

namespace Norvex::Test {

namespace {

using DX::D12Texture2D;
using DX::D12Texture2DPool;
using TexturePtr = boost::intrusive_ptr<D12Texture2D>;

DX::D12Texture2DDesc MakeDesc(std::uint16_t arraySize) {
    DX::D12Texture2DDesc desc;
    desc.width = 64;
    desc.height = 32;
    desc.arraySize = arraySize;
    desc.format = DXGI_FORMAT_R8G8B8A8_UNORM;
    return desc;
}

class D3D12TexturePoolTest : public DeviceTest {
protected:
    static boost::intrusive_ptr<D12Texture2DPool> MakePool(std::uint16_t arraySize) {
        return D12Texture2DPool::Create(s_device, MakeDesc(arraySize));
    }
};

TEST_F(D3D12TexturePoolTest, SeparateTexturesAreReusedOldestFirst) {
    const auto pool = MakePool(1);
    EXPECT_FALSE(pool->IsTextureArray());
    EXPECT_EQ(pool->GetWidth(), 64U);
    EXPECT_EQ(pool->GetHeight(), 32U);
    TexturePtr a = pool->ObtainTexture();
    TexturePtr b = pool->ObtainTexture();
    EXPECT_EQ(b->GetSubresource(), 0U);
    ID3D12Resource* const rawA = a->GetResource();
    ID3D12Resource* const rawB = b->GetResource();
    ASSERT_NE(rawA, rawB);
    {
        const TexturePtr copy(new D12Texture2D(*a));
        a.reset();
        EXPECT_NE(pool->ObtainTexture()->GetResource().p, rawA) << "a copy still holds it";
    }
    // Returned: the one made above, then A; now B.
    b.reset();
    const TexturePtr other = pool->ObtainTexture();
    EXPECT_NE(other->GetResource().p, rawA);
    const TexturePtr first = pool->ObtainTexture();
    EXPECT_EQ(first->GetResource().p, rawA);
    EXPECT_EQ(pool->ObtainTexture()->GetResource().p, rawB);
}

TEST_F(D3D12TexturePoolTest, UnusedTexturesAreFreedBetweenTwoAndFourSeconds) {
    const auto pool = MakePool(1);
    TexturePtr texture = pool->ObtainTexture();
    const LifeProbe probe(texture->GetResource());
    const auto returned = std::chrono::steady_clock::now();
    texture.reset();
    const auto age = [&] { return std::chrono::steady_clock::now() - returned; };
    while (probe.IsAlive() && age() < std::chrono::seconds(6)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_GE(age(), std::chrono::milliseconds(1950));
    EXPECT_LT(age(), std::chrono::milliseconds(4400));
    EXPECT_FALSE(probe.IsAlive());
    EXPECT_NE(pool->ObtainTexture(), nullptr) << "the pool goes on";
}

TEST_F(D3D12TexturePoolTest, AnArrayHandsOutItsSlices) {
    const auto pool = MakePool(4);
    EXPECT_TRUE(pool->IsTextureArray());
    std::vector<TexturePtr> slices;
    for (unsigned i = 0; i < 4; ++i) {
        slices.push_back(pool->ObtainTexture());
        EXPECT_EQ(slices[i]->GetSubresource(), i);
        EXPECT_EQ(slices[i]->GetResource().p, slices[0]->GetResource().p);
        EXPECT_TRUE(slices[i]->IsTextureArray());
    }
    EXPECT_EQ(SentenceOf([&] { pool->ObtainTexture(); }),
              "There are no free textures in the array");
    slices[2].reset();
    EXPECT_EQ(pool->ObtainTexture()->GetSubresource(), 2U);
    const auto barrier =
        slices[3]->Transition(D3D12_RESOURCE_STATE_COMMON, D3D12_RESOURCE_STATE_COPY_DEST, 1,
                              D3D12_RESOURCE_BARRIER_FLAG_BEGIN_ONLY);
    EXPECT_EQ(barrier.Transition.Subresource, 1U) << "as named, not the texture's own";
    EXPECT_EQ(barrier.Flags, D3D12_RESOURCE_BARRIER_FLAG_BEGIN_ONLY);
}

TEST_F(D3D12TexturePoolTest, AFailedCreationPasses) {
    const MethodPatch<Slot::kDeviceCreateCommittedResource,
                      HRESULT(ID3D12Device*, const D3D12_HEAP_PROPERTIES*, D3D12_HEAP_FLAGS,
                              const D3D12_RESOURCE_DESC*, D3D12_RESOURCE_STATES,
                              const D3D12_CLEAR_VALUE*, REFIID, void**)>
        fail(Raw(), [](auto...) { return E_OUTOFMEMORY; });
    const auto pool = MakePool(1);
    EXPECT_EQ(SentenceOf([&] { pool->ObtainTexture(); }), "Failed to create 2D texture");
    EXPECT_EQ(SentenceOf([] { MakePool(2); }), "Failed to create 2D texture");
}

// The last texture is released on another thread just as the pool's owner lets go.
TEST_F(D3D12TexturePoolTest, TheLastTextureAndThePoolsOwnerMayGoAtOnce) {
    for (const std::uint16_t arraySize : {std::uint16_t{1}, std::uint16_t{3}}) {
        std::unique_ptr<LifeProbe> probe;
        for (int i = 0; i < 100; ++i) {
            auto pool = MakePool(arraySize);
            TexturePtr texture = pool->ObtainTexture();
            probe = std::make_unique<LifeProbe>(texture->GetResource());
            std::atomic<bool> go{false};
            std::thread releaser([&] {
                while (!go) {
                }
                texture.reset();
            });
            go = true;
            pool.reset();
            releaser.join();
            ASSERT_FALSE(probe->IsAlive());
        }
    }
}

} // namespace

} // namespace Norvex::Test
