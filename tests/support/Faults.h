#pragma once

// Stands between the library and what it calls of the system: notes the calls, has one of them
// fail, and has the device lost from that one on, as Windows loses it: it stays lost while anything
// holds it, and on Direct3D 12 no other is made for the adapter until nothing does. Any thread, but
// for Begin and End. What stands in the table: Interpose.

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/LifeProbe.h"
#include "tests/support/MethodPatch.h"

namespace Norvex::Test {

inline constexpr HRESULT kLossReason = DXGI_ERROR_DEVICE_HUNG;

struct Fault {
    HRESULT result = S_OK;
    bool isLoss = false; // for good
};
inline constexpr Fault kLoss = {DXGI_ERROR_DEVICE_REMOVED, true};

// What the caller is told: one of some functions and sentences, as they begin. A function of the
// method's own name is left out. "-" before: without the adapter; "--": nor of a generation's
// class; "---": of a generation's, without a result.
using Tellings = std::vector<std::string>;
inline constexpr auto kUntold = ": (nothing)";

class Faults : boost::noncopyable {
public:
    // While it lives, what this thread calls is left alone: what the system calls within a call of
    // the library's.
    struct InCall : boost::noncopyable {
        InCall() { t_isInCall = true; }
        ~InCall() { t_isInCall = false; }
    };

    ~Faults();

    // The call of that number, from 0 on, fails; none at -1.
    void Begin(int failing, const Fault& fault);
    // The calls that were made.
    std::vector<std::string> End();
    // Whether something of the device is left that Begin did not find. Waits a little for threads
    // of the system's.
    bool IsAnythingLeft();
    const Tellings& GetTellings(const std::string& call) const { return m_calls.at(call).tellings; }
    // How the call fails, where it has a way of its own.
    HRESULT GetOwnResult(const std::string& call) const { return m_calls.at(call).own; }
    const auto& GetTable() const { return m_calls; }
    // From now on these calls fail with the loss of the device alone. Between Begin and End never.
    void Spare(const std::set<std::string>& calls) { m_spared = calls; }
    // Whether such a fault at this call is left out.
    bool IsSpared(const std::string& call, const Fault& fault) const {
        return !fault.isLoss && m_spared.contains(call);
    }
    // The table names such objects in small letters.
    bool EndsWithDevice(const std::string& call) const;

    // For the table.
    //
    // Lives until all patches that were made later are gone.
    template <class Object, class... Arguments>
    Object& Keep(Arguments&&... arguments) {
        auto object = std::make_shared<Object>(std::forward<Arguments>(arguments)...);
        m_kept.push_back(object);
        return *object;
    }
    // `fail` is given the result and the call's arguments. The name is the object's and the
    // function's.
    template <class Patch, class Place, class Fail>
    void Stand(const Place& place, const std::string& name, HRESULT own, const Fail& fail,
               const Tellings& tellings) {
        Add(name, own, tellings);
        Keep<Patch>(place, [this, name, fail](auto original, auto... arguments) {
            if (t_isInCall) {
                return original(arguments...);
            }
            const HRESULT result = this->Take(name);
            if (FAILED(result)) {
                return fail(result, arguments...);
            }
            const InCall inCall;
            return original(arguments...);
        });
    }
    // Of all objects of the class. Most of the table: the compiler's work for each method is
    // little.
    template <auto method>
    void Interpose(IUnknown* object, const std::string& name, const Tellings& tellings) {
        Interpose<method>(*reinterpret_cast<void***>(object) + SlotOf(method), name, tellings,
                          MakeSignature(method));
    }
    template <class Object>
    void InterposeQuery(Object* object, const std::string& name, const Tellings& tellings) {
        Stand<MethodPatch<kQueryInterface, HRESULT(Object*, REFIID, void**), Faults>>(
            object, name, E_NOINTERFACE,
            [](HRESULT result, auto*, auto&, void** out) {
                *out = nullptr;
                return result;
            },
            tellings);
    }
    // In the place of what makes devices, which `make` does: answers the one that there is, since
    // making one takes long, so that one stays here to be found again.
    template <class Device, class Make>
    HRESULT MakeDevice(Device** out, const Make& make) {
        const std::lock_guard guard(m_mutex);
        if (m_probe && m_probe->IsAlive() && !m_isLost) {
            (*out = static_cast<Device*>(m_device))->AddRef();
            return S_OK;
        }
        if (m_probe && m_probe->IsAlive() && std::is_same_v<Device, ID3D12Device>) {
            return DXGI_ERROR_DEVICE_REMOVED;
        }
        const HRESULT result = make();
        if (SUCCEEDED(result)) {
            m_isLost = false;
            m_device = *out;
            m_probe.emplace(*out);
            m_shared = m_failing < 0 || !m_fault.isLoss ? m_device : nullptr;
            m_references = m_shared != nullptr ? CountReferences() - 1 : 0; // the library's
        }
        return result;
    }
    template <class Device>
    void LoseBy(Device* device) {
        Keep<MethodPatch<&Device::GetDeviceRemovedReason>>(
            device, [this](auto original, auto* self) {
                return this->IsReasonDue() ? kLossReason : original(self);
            });
    }
    // Then work is waited for when it is submitted, so that the driver that stands in for a device
    // that is removed has nothing in flight when the library lets go of everything.
    bool IsRemovalDue();
    bool IsLost();

private:
    struct Call {
        Tellings tellings;
        HRESULT own = S_OK;
    };
    struct Row : boost::noncopyable {
        Row(Faults& owner, std::string call, void** place, void* function);
        ~Row();

        Faults& faults;
        const std::string name;
        void** const entry;
        void* const original;
    };

    template <auto method, class Result, class... Args>
    void Interpose(void** entry, const std::string& name, const Tellings& tellings,
                   std::type_identity<Result(Args...)>) {
        using Function = Result(WINAPI*)(Args...);
        static Row* row = nullptr;
        const auto call = [](Args... arguments) -> Result {
            const auto original = reinterpret_cast<Function>(row->original);
            if (t_isInCall) {
                return original(arguments...);
            }
            const HRESULT result = row->faults.Take(row->name);
            if (FAILED(result)) {
                return result;
            }
            const InCall inCall;
            return original(arguments...);
        };
        Add(name, S_OK, tellings);
        row = &Keep<Row>(*this, name, entry, reinterpret_cast<void*>(static_cast<Function>(call)));
    }
    void Add(const std::string& name, HRESULT own, const Tellings& tellings);
    // S_OK: the call is to be made.
    HRESULT Take(const std::string& name);
    bool IsReasonDue();
    ULONG CountReferences() const;

    static inline thread_local bool t_isInCall = false;

    std::vector<std::shared_ptr<void>> m_kept;
    std::map<std::string, Call> m_calls;
    std::set<std::string> m_spared;
    std::recursive_mutex m_mutex; // guards all below
    int m_failing = -1;
    Fault m_fault;
    bool m_isLost = false;
    bool m_isReasonDue = false; // once
    std::vector<std::string> m_made;
    IUnknown* m_device = nullptr; // while the probe says so
    std::optional<LifeProbe> m_probe;
    CComPtr<IUnknown> m_shared;
    ULONG m_references = 0;
};

// Every call of a generation's.
void Interpose(Faults& faults, bool isDirect3D12);

} // namespace Norvex::Test
