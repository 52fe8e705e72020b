// A stand-in for the host's channel service TBXService: it loads the real fido2Client.dll,
// hands it the host's tables through QueryInterface, and lets tests and tools drive the
// connection, the channel, the peer's channel objects and the messages, while it records
// everything the plug-in does. One host per process, as with the real service.
#pragma once

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "channel/host_interfaces.h"

namespace sim {

using Bytes = std::vector<uint8_t>;

struct SentMessage {
    std::string objectName;
    uint32_t command;
    std::vector<Bytes> params;
    bool postMode;
    TBXUserData userData;
    int64_t sentTicks;  // performance counter when the plug-in handed it over
};

struct CreatedObject {
    std::string name;
    uint32_t flags;
    TBXUserData userData;
};

struct SideChannelRequest {
    std::string objectName;
    int32_t type;
    std::string pluginName;
};

// The plug-in's exports, loaded from its DLL.
struct PluginExports {
    TBXPluginInitFn init = nullptr;
    TBXPluginExitFn exit = nullptr;
    TBXPluginCreateInstanceFn createInstance = nullptr;
    TBXPluginDestroyInstanceFn destroyInstance = nullptr;
    TBXPluginGetTokenNameFn getTokenName = nullptr;
};

class Host {
public:
    static Host& Get();

    // Loads the DLL (default: fido2Client.dll beside the running program).
    bool LoadPlugin(const std::wstring& path = std::wstring());
    const PluginExports& Plugin() const { return exports; }
    // For a plug-in built into the test program itself: its exports, instead of a DLL's.
    void UsePlugin(const PluginExports& inProcess) { exports = inProcess; }
    // Forgets all channel state and records; the loaded plug-in stays, and so do the strict
    // mode and its record of violations.
    void Reset();

    // --- Strict mode: the host holds the plug-in to the contract ---
    // On by default. Each breach is recorded: a stale or unknown handle used, a second
    // release, a send on a destroyed object or on a context already sent, a blob argument not
    // in its one-structure form, a message sink or user data other than the contract's, a
    // call for an instance after its destroy, a sink or object that outlives its instance.
    // Functions whose contract returns a bool answer true as 0x100: non-zero, but neither 1
    // nor visible in the low byte. Tests take the record at tear-down and fail on any entry.
    bool strict = true;
    std::vector<std::string> TakeViolations();
    // What a misbehaving host might still send after the instance's destroy: every report
    // and callback, to the sinks and objects the instance once had, with its old user data.
    void ReportToDestroyedInstance(TBXUserData instance);

    // --- The host's side of the contract, steered by tests ---
    // Ids that QueryInterface doesn't know.
    std::set<uint16_t> withheldIds;
    bool withholdObjectOptions = false;
    bool connectResult = true;
    bool disconnectResult = true;
    bool setContextOptionResult = true;
    bool invokeResult = true;
    bool createObjectResult = true;
    int32_t sessionType = TBX_SESSION_NORIX;
    // Holds every Invoke (a plug-in's send) until released, to stop a sender at that point.
    void HoldInvokes(bool hold);
    // Waits until at least `count` sends are being held; false on time-out.
    bool WaitForHeldInvokes(int count, uint32_t timeoutMs);

    // Plug-in calls, as the host makes them.
    bool Init();
    bool Exit();
    bool CreateInstance(TBXUserData* instance);
    bool DestroyInstance(TBXUserData instance);
    std::string TokenName(int32_t size = 64);

    // Reports to every registered channel sink, one at a time.
    void ReportConnection(int32_t current, int32_t reported);
    void ReportChannel(int32_t current, int32_t reported);
    void AnnouncePeerObject(const std::string& name);
    // Sets the state of a plug-in object by name and reports it to the object's sink.
    bool SetObjectState(const std::string& name, int32_t state);
    void SetObjectOptions(const std::string& name, uint32_t options, bool ok = true);
    // Channel up, both objects announced and connected: the instance becomes ready.
    void BringUp(const std::string& dataObjectName = "fido2DataObj");
    // Both objects announced and connected, on a channel that is up.
    void ObjectsUp(const std::string& dataObjectName = "fido2DataObj");

    // A message from the agent on a plug-in object (default: the data object).
    bool DeliverMessage(const Bytes& blob, uint32_t command = 1, const std::string& objectName = std::string(),
                        bool withParam = true);
    // The done and abort reports of a message sent with a reply expected. A message that was
    // sent gets them with the sink and user data of its Invoke; asking for another instance's
    // is a fault of the test. An id never sent gets the last reply sink, as a hostile host would.
    bool DeliverMsgDone(TBXUserData instance, uint32_t messageId);
    bool DeliverMsgAbort(TBXUserData instance, uint32_t messageId);

    // --- What the plug-in did ---
    std::vector<SentMessage> Messages();
    // Waits until at least count messages were sent; false on time-out.
    bool WaitForMessages(size_t count, uint32_t timeoutMs);
    std::vector<CreatedObject> CreatedObjects();
    std::vector<std::string> DestroyedObjects();
    std::vector<SideChannelRequest> SideChannelRequests();
    int ConnectCalls();
    int DisconnectCalls();
    size_t RegisteredSinks();
    size_t LiveContexts();
    size_t LiveObjects();
    std::string DataObjectName();

    // --- The tables' functions ---
    static TBXBool TBXAPI QueryInterface(const TBXGuid* id, void* table);

private:
    Host() = default;
    struct Sink {
        TBXChannelSink table;
        TBXUserData userData;
    };
    struct Object {
        std::string name;
        // Control and data sinks share one form: version, invoke, state changed.
        TBXControlObjectSink sink;
        TBXUserData userData;
        uint32_t flags;
        int32_t state;
        uint32_t options;
        bool optionsOk;
    };
    struct Context {
        uint32_t id;
        TBXHandle object;
        uint32_t command;
        std::vector<Bytes> params;
        bool postMode;
    };
    struct Reply {
        TBXMessageSink sink;
        TBXUserData userData;
    };
    std::vector<Sink> SinksCopy();
    bool FindObject(const std::string& name, TBXHandle* handle, Object* copy);
    bool ReplyFor(TBXUserData instance, uint32_t messageId, Reply* reply);
    // With dataMutex held: records a breach (strict mode only).
    void Violation(const char* format, ...);
    // With dataMutex held: the live object or context, or null after recording the breach.
    template <class Entry>
    Entry* Live(std::map<TBXHandle, Entry>& live, TBXHandle handle, const char* function, const char* kind);
    // Handles come from counters that never go back, so one that this host issued and that is
    // no longer live was released: no record per released handle is needed.
    bool Issued(TBXHandle handle) const;
    bool IsDestroyed(TBXUserData instance) const { return destroyedInstances.count(instance) != 0; }
    void RememberDestroyed(TBXUserData instance);
    Object* LiveObject(TBXHandle object, const char* function);
    Context* LiveContext(TBXHandle context, const char* function);
    TBXBool Yes() const { return strict ? 0x100 : 1; }

    // Host table functions.
    static TBXBool TBXAPI RegisterChannelNotifySink(const TBXChannelSink*, TBXUserData, int32_t*);
    static TBXBool TBXAPI UnregisterChannelNotifySink(int32_t);
    static TBXBool TBXAPI Connect();
    static TBXBool TBXAPI Disconnect();
    static int32_t TBXAPI GetChannelState();
    static int32_t TBXAPI GetSessionType();
    static TBXBool TBXAPI CreateChannelObject(const char*, const void*, TBXUserData, uint32_t, TBXHandle*);
    static TBXBool TBXAPI DestroyChannelObject(TBXHandle);
    static int32_t TBXAPI GetObjectState(TBXHandle);
    static TBXBool TBXAPI CreateContext(TBXHandle, TBXHandle*);
    static TBXBool TBXAPI DestroyContext(TBXHandle);
    static TBXBool TBXAPI Invoke(TBXHandle, TBXHandle, const TBXMessageSink*, TBXUserData);
    static void TBXAPI RequestSideChannel(TBXHandle, int32_t, const char*);
    static TBXBool TBXAPI GetObjectOptions(TBXHandle, uint32_t*);
    static uint32_t TBXAPI GetContextId(TBXHandle);
    static uint32_t TBXAPI GetCommand(TBXHandle);
    static void TBXAPI SetCommand(TBXHandle, uint32_t);
    static void TBXAPI AppendParam(TBXHandle, const TBXVariant*);
    static void TBXAPI GetParam(TBXHandle, uint32_t, TBXVariant*);
    static TBXBool TBXAPI SetContextOption(TBXHandle, uint32_t, const TBXVariant*);
    static void TBXAPI VariantInit(TBXVariant*);
    static void TBXAPI VariantClear(TBXVariant*);
    static void TBXAPI VariantFromUInt32(TBXVariant*, uint32_t);
    // Written in the x64 form of its one 16-byte argument: the address of the caller's copy.
    static void TBXAPI VariantFromBlob(TBXVariant*, const TBXBlob* blobCopy);

    HMODULE module = nullptr;
    PluginExports exports;

    // Guards the host's data; never held while the plug-in runs.
    std::mutex dataMutex;
    std::condition_variable messageSent;
    // Reports reach the plug-in one at a time, as from the real service.
    std::recursive_mutex deliveryMutex;

    int32_t connectionState = TBX_STATE_DISCONNECTED;
    std::map<int32_t, Sink> sinks;
    int32_t nextSink = 1;
    std::map<TBXHandle, Object> objects;
    std::map<TBXHandle, Context> contexts;
    static constexpr uintptr_t kFirstHandle = 0x1000;
    uintptr_t nextHandle = kFirstHandle;
    uint32_t nextContextId = 1;
    std::vector<SentMessage> sent;
    std::vector<CreatedObject> created;
    std::vector<std::string> destroyed;
    std::vector<SideChannelRequest> sideRequests;
    int connectCalls = 0;
    int disconnectCalls = 0;
    std::atomic<bool> holdInvokes{false};
    std::atomic<int> heldInvokes{0};
    HANDLE invokeGate = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    // The message sink of the last Invoke that expected a reply.
    TBXMessageSink lastMessageSink{};
    // Messages sent with a reply expected, by id.
    std::map<uint32_t, Reply> replies;
    std::vector<std::string> violations;
    // The user data of instances is the plug-in's to choose, so destroyed ones are remembered
    // one by one: the latest kRememberedInstances, enough for every late report a test makes,
    // and a bound for a soak of thousands of rounds.
    static constexpr size_t kRememberedInstances = 256;
    std::set<TBXUserData> destroyedInstances;
    std::deque<TBXUserData> destroyedOrder;
    // Sinks and objects of instances, kept after their release for hostile reports.
    std::map<TBXUserData, std::vector<Sink>> retiredSinks;
    std::map<TBXUserData, std::vector<Object>> retiredObjects;
};

}  // namespace sim
