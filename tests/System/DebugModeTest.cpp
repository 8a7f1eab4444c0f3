// Debug mode, asked for in time. Whether this system has the debug layer decides what follows; both
// ways are checked.

#include <gmock/gmock.h>

#include "Proc/DirectX/Manager/API.h"
#include "Proc/DirectX/Manager/D3D12Device.h"
#include "Proc/DirectX/Manager/DXGIFactory.h"
#include "Proc/DirectX/Manager/DirectXDebug.h"
#include "Proc/DirectX/Manager/Exceptions.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MethodPatch.h"

namespace Norvex::DX {
namespace {

using Norvex::Test::LogCapture;
using Norvex::Test::MethodPatch;

constexpr std::size_t kQueryInterfaceSlot = 0;
using QueryInterface = MethodPatch<kQueryInterfaceSlot, HRESULT(ID3D12Device*, REFIID, void**)>;

// Three stored messages: an error, a warning whose text cannot be fetched, an information.
class FakeInfoQueue final : public ID3D12InfoQueue {
public:
    virtual ~FakeInfoQueue() = default;

    bool isCleared = false;
    int references = 1;

    HRESULT STDMETHODCALLTYPE GetMessage(UINT64 index, D3D12_MESSAGE* message,
                                         SIZE_T* size) override {
        if (index == 1) {
            return E_INVALIDARG;
        }
        static constexpr char kText[] = "Something is wrong";
        *size = sizeof(D3D12_MESSAGE);
        if (message != nullptr) {
            message->Severity =
                index == 0 ? D3D12_MESSAGE_SEVERITY_ERROR : D3D12_MESSAGE_SEVERITY_INFO;
            message->ID = D3D12_MESSAGE_ID_MAP_INVALIDHEAP;
            message->pDescription = kText;
            message->DescriptionByteLength = sizeof(kText);
        }
        return S_OK;
    }
    UINT64 STDMETHODCALLTYPE GetNumStoredMessagesAllowedByRetrievalFilter() override { return 3; }
    void STDMETHODCALLTYPE ClearStoredMessages() override { isCleared = true; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--references); }

    // Not used by the library.
    HRESULT STDMETHODCALLTYPE SetMessageCountLimit(UINT64) override { return E_NOTIMPL; }
    UINT64 STDMETHODCALLTYPE GetNumMessagesAllowedByStorageFilter() override { return 0; }
    UINT64 STDMETHODCALLTYPE GetNumMessagesDeniedByStorageFilter() override { return 0; }
    UINT64 STDMETHODCALLTYPE GetNumStoredMessages() override { return 0; }
    UINT64 STDMETHODCALLTYPE GetNumMessagesDiscardedByMessageCountLimit() override { return 0; }
    UINT64 STDMETHODCALLTYPE GetMessageCountLimit() override { return 0; }
    HRESULT STDMETHODCALLTYPE AddStorageFilterEntries(D3D12_INFO_QUEUE_FILTER*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetStorageFilter(D3D12_INFO_QUEUE_FILTER*, SIZE_T*) override {
        return E_NOTIMPL;
    }
    void STDMETHODCALLTYPE ClearStorageFilter() override {}
    HRESULT STDMETHODCALLTYPE PushEmptyStorageFilter() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE PushCopyOfStorageFilter() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE PushStorageFilter(D3D12_INFO_QUEUE_FILTER*) override {
        return E_NOTIMPL;
    }
    void STDMETHODCALLTYPE PopStorageFilter() override {}
    UINT STDMETHODCALLTYPE GetStorageFilterStackSize() override { return 0; }
    HRESULT STDMETHODCALLTYPE AddRetrievalFilterEntries(D3D12_INFO_QUEUE_FILTER*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetRetrievalFilter(D3D12_INFO_QUEUE_FILTER*, SIZE_T*) override {
        return E_NOTIMPL;
    }
    void STDMETHODCALLTYPE ClearRetrievalFilter() override {}
    HRESULT STDMETHODCALLTYPE PushEmptyRetrievalFilter() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE PushCopyOfRetrievalFilter() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE PushRetrievalFilter(D3D12_INFO_QUEUE_FILTER*) override {
        return E_NOTIMPL;
    }
    void STDMETHODCALLTYPE PopRetrievalFilter() override {}
    UINT STDMETHODCALLTYPE GetRetrievalFilterStackSize() override { return 0; }
    HRESULT STDMETHODCALLTYPE AddMessage(D3D12_MESSAGE_CATEGORY, D3D12_MESSAGE_SEVERITY,
                                         D3D12_MESSAGE_ID, LPCSTR) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE AddApplicationMessage(D3D12_MESSAGE_SEVERITY, LPCSTR) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetBreakOnCategory(D3D12_MESSAGE_CATEGORY, BOOL) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetBreakOnSeverity(D3D12_MESSAGE_SEVERITY, BOOL) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetBreakOnID(D3D12_MESSAGE_ID, BOOL) override { return E_NOTIMPL; }
    BOOL STDMETHODCALLTYPE GetBreakOnCategory(D3D12_MESSAGE_CATEGORY) override { return FALSE; }
    BOOL STDMETHODCALLTYPE GetBreakOnSeverity(D3D12_MESSAGE_SEVERITY) override { return FALSE; }
    BOOL STDMETHODCALLTYPE GetBreakOnID(D3D12_MESSAGE_ID) override { return FALSE; }
    void STDMETHODCALLTYPE SetMuteDebugOutput(BOOL) override {}
    BOOL STDMETHODCALLTYPE GetMuteDebugOutput() override { return FALSE; }
};

TEST(DebugModeTest, MessagesReachTheLog) {
    EnableDebugMode();
    EnableDebugMode();

    LogCapture log;
    CComPtr<ID3D12Debug> debug;
    const bool hasLayer = SUCCEEDED(API::GetInstance().GetDebugInterface(debug));
    DXGIFactory::Create();
    DXGIFactory::Create();
    const char* const warning = "The application requested an operation that depends on an SDK "
                                "component that is missing or mismatched.\n"
                                "To resolve this issue, go to the Settings panel, under System, "
                                "Apps & features, Manage optional Features,\n"
                                "Add a feature, and then look for \"Graphics Tools\".";
    EXPECT_EQ(log.Count(google::GLOG_WARNING, warning), hasLayer ? 0 : 1);

    const auto device = D12Device::CreatePrimary();
    FakeInfoQueue queue;
    bool isOffered = false;
    const QueryInterface patch(device->Get(),
                               [&](auto original, ID3D12Device* self, REFIID riid, void** out) {
                                   if (!IsEqualGUID(riid, __uuidof(ID3D12InfoQueue))) {
                                       return original(self, riid, out);
                                   }
                                   *out = isOffered ? &queue : nullptr;
                                   queue.references += isOffered ? 1 : 0;
                                   return isOffered ? S_OK : E_NOINTERFACE;
                               });
    const Norvex::HResult withoutQueue(E_FAIL, device->Get());
    EXPECT_EQ(log.Count(google::GLOG_ERROR, "D3D12: Failed to get information queue"), 1);

    isOffered = true;
    const Norvex::HResult withQueue(E_FAIL, device->Get());
    EXPECT_EQ(log.Count(google::GLOG_ERROR, std::string("D3D12: Something is wrong\0 (", 28)), 1);
    EXPECT_EQ(log.Count(google::GLOG_INFO, "D3D12: Something is wrong"), 1);
    EXPECT_EQ(
        log.Count(google::GLOG_ERROR, "D3D12: ID3D12InfoQueue::GetMessage failed with -2147024809"),
        1);
    EXPECT_TRUE(queue.isCleared);
    EXPECT_EQ(queue.references, 1);
    EXPECT_EQ(withQueue.value().adapter, device->GetDescription());
}

} // namespace
} // namespace Norvex::DX
