#include "sim/host_sim.h"

#include "sim/authenticator_client.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

constexpr uint32_t kVariantEmpty = 0;
constexpr uint32_t kVariantUInt32 = 1;
constexpr uint32_t kVariantBlob = 2;

template <class Fn>
Fn Export(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// Whether `size` bytes at `address` can be read, asked of the memory manager rather than
// found out by a fault.
bool Readable(const void* address, size_t size) {
    const DWORD kReadable = PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                            PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    auto at = reinterpret_cast<uintptr_t>(address);
    const uintptr_t end = at + size;
    if (!address || end < at) return false;
    while (at < end) {
        MEMORY_BASIC_INFORMATION info;
        if (VirtualQuery(reinterpret_cast<const void*>(at), &info, sizeof(info)) == 0) return false;
        if (info.State != MEM_COMMIT || !(info.Protect & kReadable) || (info.Protect & PAGE_GUARD)) return false;
        at = reinterpret_cast<uintptr_t>(info.BaseAddress) + info.RegionSize;
    }
    return true;
}

// A table slot filled with a function of the host's own form for that slot.
template <class Slot, class Fn>
Slot AsSlot(Fn function) {
    return reinterpret_cast<Slot>(reinterpret_cast<void (*)()>(function));
}

std::string Text(const char* format, va_list args) {
    char buffer[512];
    vsnprintf(buffer, sizeof(buffer), format, args);
    return buffer;
}

}  // namespace

Host& Host::Get() {
    static Host host;
    return host;
}

bool Host::LoadPlugin(const std::wstring& path) {
    if (module) return true;
    module = LoadLibraryW(path.empty() ? BesideProgram(L"fido2Client.dll").c_str() : path.c_str());
    if (!module) return false;
    exports.init = Export<TBXPluginInitFn>(module, "TBXService_PluginInit");
    exports.exit = Export<TBXPluginExitFn>(module, "TBXService_PluginExit");
    exports.createInstance = Export<TBXPluginCreateInstanceFn>(module, "TBXService_PluginCreateInstance");
    exports.destroyInstance = Export<TBXPluginDestroyInstanceFn>(module, "TBXService_PluginDestroyInstance");
    exports.getTokenName = Export<TBXPluginGetTokenNameFn>(module, "TBXService_PluginGetTokenName");
    return exports.init && exports.exit && exports.createInstance && exports.destroyInstance && exports.getTokenName;
}

void Host::Reset() {
    std::lock_guard<std::mutex> lock(dataMutex);
    withheldIds.clear();
    withholdObjectOptions = false;
    connectResult = disconnectResult = setContextOptionResult = invokeResult = createObjectResult = true;
    sessionType = TBX_SESSION_NORIX;
    connectionState = TBX_STATE_DISCONNECTED;
    sinks.clear();
    objects.clear();
    contexts.clear();
    sent.clear();
    created.clear();
    destroyed.clear();
    sideRequests.clear();
    connectCalls = disconnectCalls = 0;
    holdInvokes = false;
    SetEvent(invokeGate);
    replies.clear();
    lastMessageSink = TBXMessageSink{};
    retiredSinks.clear();
    retiredObjects.clear();
}

void Host::Violation(const char* format, ...) {
    if (!strict) return;
    va_list args;
    va_start(args, format);
    violations.push_back(Text(format, args));
    va_end(args);
}

std::vector<std::string> Host::TakeViolations() {
    std::lock_guard<std::mutex> lock(dataMutex);
    std::vector<std::string> taken;
    taken.swap(violations);
    return taken;
}

template <class Entry>
Entry* Host::Live(std::map<TBXHandle, Entry>& live, TBXHandle handle, const char* function, const char* kind) {
    auto it = live.find(handle);
    if (it != live.end()) return &it->second;
    Violation(Issued(handle) ? "%s: %s %p used after its release" : "%s: unknown %s %p", function, kind, handle);
    return nullptr;
}

bool Host::Issued(TBXHandle handle) const {
    const uintptr_t value = reinterpret_cast<uintptr_t>(handle);
    return value >= kFirstHandle && value < nextHandle;
}

void Host::RememberDestroyed(TBXUserData instance) {
    if (!destroyedInstances.insert(instance).second) return;
    destroyedOrder.push_back(instance);
    if (destroyedOrder.size() > kRememberedInstances) {
        destroyedInstances.erase(destroyedOrder.front());
        destroyedOrder.pop_front();
    }
}

Host::Object* Host::LiveObject(TBXHandle object, const char* function) {
    return Live(objects, object, function, "object");
}

Host::Context* Host::LiveContext(TBXHandle context, const char* function) {
    return Live(contexts, context, function, "context");
}

// --- Calls into the plug-in ---

bool Host::Init() { return exports.init && exports.init(0x484F5354, &Host::QueryInterface) != 0; }
bool Host::Exit() { return exports.exit && exports.exit() != 0; }

bool Host::CreateInstance(TBXUserData* instance) {
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    return exports.createInstance && exports.createInstance(reinterpret_cast<TBXHandle>(0xC0FFEE), instance) != 0;
}

bool Host::DestroyInstance(TBXUserData instance) {
    if (!exports.destroyInstance || exports.destroyInstance(instance) == 0) return false;
    std::lock_guard<std::mutex> lock(dataMutex);
    RememberDestroyed(instance);
    for (const auto& entry : sinks) {
        if (entry.second.userData == instance) {
            Violation("instance 0x%llx destroyed with its channel sink %d still registered",
                      static_cast<unsigned long long>(instance), entry.first);
        }
    }
    for (const auto& entry : objects) {
        if (entry.second.userData == instance) {
            Violation("instance 0x%llx destroyed with its object \"%s\" still alive",
                      static_cast<unsigned long long>(instance), entry.second.name.c_str());
        }
    }
    return true;
}

void Host::ReportToDestroyedInstance(TBXUserData instance) {
    std::vector<Sink> oldSinks;
    std::vector<Object> oldObjects;
    TBXMessageSink messageSink;
    TBXHandle context = nullptr;
    {
        std::lock_guard<std::mutex> lock(dataMutex);
        oldSinks = retiredSinks[instance];
        oldObjects = retiredObjects[instance];
        messageSink = lastMessageSink;
        // A GetClientInfo request, which a live instance would answer.
        context = reinterpret_cast<TBXHandle>(nextHandle++);
        contexts[context] = Context{nextContextId++, nullptr, 1, {Bytes{1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}}, false};
    }
    {
        std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
        for (const Sink& s : oldSinks) {
            s.table.OnConnectionStateChanged(instance, TBX_STATE_CONNECTED, TBX_STATE_CONNECTED, 0);
            s.table.OnChannelStateChanged(instance, TBX_STATE_CONNECTED, TBX_STATE_CONNECTED, 0);
            s.table.OnPeerChannelObjectCreated(instance, "fido2ControlObj");
            s.table.OnPeerChannelObjectCreated(instance, "fido2DataObj");
            s.table.OnConnectionStateChanged(instance, TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED, 0);
        }
        for (const Object& o : oldObjects) {
            o.sink.OnChannelControlObjectStateChanged(instance, TBX_STATE_CONNECTED);
            o.sink.OnControlMsgInvoke(instance, context);
            o.sink.OnChannelControlObjectStateChanged(instance, TBX_STATE_DISCONNECTED);
        }
        if (messageSink.OnMsgDone) messageSink.OnMsgDone(instance, 1, 0);
        if (messageSink.OnMsgAbort) messageSink.OnMsgAbort(instance, 1, 1, 0x80004004);
    }
    std::lock_guard<std::mutex> lock(dataMutex);
    contexts.erase(context);
}

std::string Host::TokenName(int32_t size) {
    std::vector<char> buffer(static_cast<size_t>(size > 0 ? size : 1), '#');
    if (!exports.getTokenName || exports.getTokenName(buffer.data(), size) != 1) return "<failed>";
    return std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
}

std::vector<Host::Sink> Host::SinksCopy() {
    std::lock_guard<std::mutex> lock(dataMutex);
    std::vector<Sink> copy;
    for (auto& entry : sinks) copy.push_back(entry.second);
    return copy;
}

void Host::ReportConnection(int32_t current, int32_t reported) {
    {
        std::lock_guard<std::mutex> lock(dataMutex);
        connectionState = current;
    }
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    for (const Sink& s : SinksCopy()) s.table.OnConnectionStateChanged(s.userData, current, reported, 0);
}

void Host::ReportChannel(int32_t current, int32_t reported) {
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    for (const Sink& s : SinksCopy()) s.table.OnChannelStateChanged(s.userData, current, reported, 0);
}

void Host::AnnouncePeerObject(const std::string& name) {
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    for (const Sink& s : SinksCopy()) s.table.OnPeerChannelObjectCreated(s.userData, name.c_str());
}

bool Host::FindObject(const std::string& name, TBXHandle* handle, Object* copy) {
    std::lock_guard<std::mutex> lock(dataMutex);
    for (auto& entry : objects) {
        if (entry.second.name == name) {
            if (handle) *handle = entry.first;
            if (copy) *copy = entry.second;
            return true;
        }
    }
    return false;
}

bool Host::SetObjectState(const std::string& name, int32_t state) {
    TBXHandle handle = nullptr;
    Object object;
    if (!FindObject(name, &handle, &object)) return false;
    {
        std::lock_guard<std::mutex> lock(dataMutex);
        objects[handle].state = state;
    }
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    object.sink.OnChannelControlObjectStateChanged(object.userData, state);
    return true;
}

void Host::SetObjectOptions(const std::string& name, uint32_t options, bool ok) {
    TBXHandle handle = nullptr;
    if (!FindObject(name, &handle, nullptr)) return;
    std::lock_guard<std::mutex> lock(dataMutex);
    objects[handle].options = options;
    objects[handle].optionsOk = ok;
}

std::string Host::DataObjectName() {
    std::lock_guard<std::mutex> lock(dataMutex);
    for (auto& entry : objects) {
        if (entry.second.name.rfind("fido2DataObj", 0) == 0) return entry.second.name;
    }
    return std::string();
}

void Host::BringUp(const std::string& dataObjectName) {
    ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    ObjectsUp(dataObjectName);
}

void Host::ObjectsUp(const std::string& dataObjectName) {
    AnnouncePeerObject("fido2ControlObj");
    AnnouncePeerObject(dataObjectName);
    SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
    SetObjectState(dataObjectName, TBX_STATE_CONNECTED);
}

bool Host::DeliverMessage(const Bytes& blob, uint32_t command, const std::string& objectName, bool withParam) {
    TBXHandle objectHandle = nullptr;
    Object object;
    const std::string name = objectName.empty() ? DataObjectName() : objectName;
    if (!FindObject(name, &objectHandle, &object)) return false;
    TBXHandle context = nullptr;
    {
        std::lock_guard<std::mutex> lock(dataMutex);
        context = reinterpret_cast<TBXHandle>(nextHandle++);
        Context c{nextContextId++, objectHandle, command, {}, false};
        if (withParam) c.params.push_back(blob);
        contexts[context] = c;
    }
    {
        std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
        object.sink.OnControlMsgInvoke(object.userData, context);
    }
    std::lock_guard<std::mutex> lock(dataMutex);
    contexts.erase(context);
    return true;
}

bool Host::ReplyFor(TBXUserData instance, uint32_t messageId, Reply* reply) {
    std::lock_guard<std::mutex> lock(dataMutex);
    auto it = replies.find(messageId);
    if (it == replies.end()) {
        *reply = Reply{lastMessageSink, instance};
    } else {
        *reply = it->second;
        if (instance != reply->userData) {
            Violation("done or abort of message %u asked for user data 0x%llx; it was sent with 0x%llx", messageId,
                      static_cast<unsigned long long>(instance), static_cast<unsigned long long>(reply->userData));
        }
    }
    return reply->sink.OnMsgDone && reply->sink.OnMsgAbort;
}

bool Host::DeliverMsgDone(TBXUserData instance, uint32_t messageId) {
    Reply reply;
    if (!ReplyFor(instance, messageId, &reply)) return false;
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    reply.sink.OnMsgDone(reply.userData, messageId, 0);
    return true;
}

bool Host::DeliverMsgAbort(TBXUserData instance, uint32_t messageId) {
    Reply reply;
    if (!ReplyFor(instance, messageId, &reply)) return false;
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    reply.sink.OnMsgAbort(reply.userData, messageId, 1, 0x80004004);
    return true;
}

// --- Records ---

std::vector<SentMessage> Host::Messages() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return sent;
}

bool Host::WaitForMessages(size_t count, uint32_t timeoutMs) {
    std::unique_lock<std::mutex> lock(dataMutex);
    return messageSent.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return sent.size() >= count; });
}

std::vector<CreatedObject> Host::CreatedObjects() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return created;
}

std::vector<std::string> Host::DestroyedObjects() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return destroyed;
}

std::vector<SideChannelRequest> Host::SideChannelRequests() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return sideRequests;
}

int Host::ConnectCalls() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return connectCalls;
}

int Host::DisconnectCalls() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return disconnectCalls;
}

size_t Host::RegisteredSinks() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return sinks.size();
}

size_t Host::LiveContexts() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return contexts.size();
}

size_t Host::LiveObjects() {
    std::lock_guard<std::mutex> lock(dataMutex);
    return objects.size();
}

// --- QueryInterface and the tables ---

TBXBool TBXAPI Host::QueryInterface(const TBXGuid* id, void* table) {
    const TBXGuid base = TbxInterfaceId(0);
    if (!id || !table || id->Data1 != base.Data1 || id->Data3 != base.Data3 ||
        memcmp(id->Data4, base.Data4, sizeof(base.Data4)) != 0) {
        return 0;
    }
    Host& h = Get();
    {
        std::lock_guard<std::mutex> lock(h.dataMutex);
        if (h.withheldIds.count(id->Data2)) return 0;
    }
    switch (id->Data2) {
        case 0x000B:
        case 0x0010:
        case 0x0006: {
            TBXChannelInterface t{};
            t.RegisterChannelNotifySink = RegisterChannelNotifySink;
            t.UnregisterChannelNotifySink = UnregisterChannelNotifySink;
            t.Connect = Connect;
            t.Disconnect = Disconnect;
            t.GetChannelState = GetChannelState;
            t.GetSessionType = GetSessionType;
            memcpy(table, &t, sizeof(t));
            return h.Yes();
        }
        case 0x0012:
        case 0x000F:
        case 0x000A:
        case 0x0002: {
            TBXChannelObjectInterface t{};
            t.CreateChannelObject = CreateChannelObject;
            t.DestroyChannelObject = DestroyChannelObject;
            t.GetObjectState = GetObjectState;
            t.CreateContext = CreateContext;
            t.DestroyContext = DestroyContext;
            t.Invoke = Invoke;
            t.RequestSideChannel = RequestSideChannel;
            t.GetObjectOptions = h.withholdObjectOptions ? nullptr : GetObjectOptions;
            memcpy(table, &t, sizeof(t));
            return h.Yes();
        }
        case 0x0008:
        case 0x0003: {
            TBXChannelContextInterface t{};
            t.GetContextId = GetContextId;
            t.GetCommand = GetCommand;
            t.SetCommand = SetCommand;
            t.AppendParam = AppendParam;
            t.GetParam = GetParam;
            t.SetContextOption = SetContextOption;
            memcpy(table, &t, sizeof(t));
            return h.Yes();
        }
        case 0x0000: {
            TBXVariantInterface t{};
            t.VariantInit = VariantInit;
            t.VariantClear = VariantClear;
            t.VariantFromUInt32 = VariantFromUInt32;
            t.VariantFromBlob = AsSlot<decltype(t.VariantFromBlob)>(&Host::VariantFromBlob);
            memcpy(table, &t, sizeof(t));
            return h.Yes();
        }
        case 0x000E:
        case 0x000C:
            memset(table, 0, sizeof(TBXStreamDataInterface));
            return h.Yes();
        case 0x0019:
        case 0x0018:
        case 0x0016:
        case 0x0007:
        case 0x0005:
            memset(table, 0, sizeof(TBXClientOverlayInterface));
            return h.Yes();
        default:
            return 0;
    }
}

TBXBool TBXAPI Host::RegisterChannelNotifySink(const TBXChannelSink* sink, TBXUserData userData, int32_t* handle) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    if (h.IsDestroyed(userData)) {
        h.Violation("RegisterChannelNotifySink for instance 0x%llx after its destroy",
                    static_cast<unsigned long long>(userData));
    }
    if (!sink || !handle || sink->version != 1) return 0;
    *handle = h.nextSink++;
    h.sinks[*handle] = Sink{*sink, userData};
    return h.Yes();
}

TBXBool TBXAPI Host::UnregisterChannelNotifySink(int32_t handle) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto it = h.sinks.find(handle);
    if (it == h.sinks.end()) {
        h.Violation(handle > 0 && handle < h.nextSink ? "channel sink %d unregistered twice" : "unknown channel sink %d",
                    handle);
        return 0;
    }
    h.retiredSinks[it->second.userData].push_back(it->second);
    h.sinks.erase(it);
    return h.Yes();
}

TBXBool TBXAPI Host::Connect() {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    ++h.connectCalls;
    return h.connectResult ? h.Yes() : 0;
}

TBXBool TBXAPI Host::Disconnect() {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    ++h.disconnectCalls;
    return h.disconnectResult ? h.Yes() : 0;
}

int32_t TBXAPI Host::GetChannelState() {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    return h.connectionState;
}

int32_t TBXAPI Host::GetSessionType() {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    return h.sessionType;
}

TBXBool TBXAPI Host::CreateChannelObject(const char* name, const void* sink, TBXUserData userData, uint32_t flags,
                                         TBXHandle* object) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    if (h.IsDestroyed(userData)) {
        h.Violation("CreateChannelObject \"%s\" for instance 0x%llx after its destroy", name ? name : "",
                    static_cast<unsigned long long>(userData));
    }
    if (!name || !sink || !object || !h.createObjectResult) return 0;
    if (static_cast<const TBXControlObjectSink*>(sink)->version != 1) {
        h.Violation("CreateChannelObject \"%s\": sink version %u", name,
                    static_cast<const TBXControlObjectSink*>(sink)->version);
    }
    TBXHandle handle = reinterpret_cast<TBXHandle>(h.nextHandle++);
    Object o{name, *static_cast<const TBXControlObjectSink*>(sink), userData, flags, TBX_STATE_PENDING, 0, true};
    h.objects[handle] = o;
    h.created.push_back(CreatedObject{name, flags, userData});
    *object = handle;
    return h.Yes();
}

TBXBool TBXAPI Host::DestroyChannelObject(TBXHandle object) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Object* o = h.LiveObject(object, "DestroyChannelObject");
    if (!o) return 0;
    h.destroyed.push_back(o->name);
    h.retiredObjects[o->userData].push_back(*o);
    h.objects.erase(object);
    return h.Yes();
}

int32_t TBXAPI Host::GetObjectState(TBXHandle object) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Object* o = h.LiveObject(object, "GetObjectState");
    return o ? o->state : TBX_STATE_UNINITIALIZED;
}

TBXBool TBXAPI Host::CreateContext(TBXHandle object, TBXHandle* context) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    if (!h.LiveObject(object, "CreateContext") || !context) return 0;
    *context = reinterpret_cast<TBXHandle>(h.nextHandle++);
    h.contexts[*context] = Context{h.nextContextId++, object, 0, {}, false};
    return h.Yes();
}

TBXBool TBXAPI Host::DestroyContext(TBXHandle context) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    if (!h.LiveContext(context, "DestroyContext")) return 0;
    h.contexts.erase(context);
    return h.Yes();
}

void Host::HoldInvokes(bool hold) {
    holdInvokes = hold;
    if (hold) {
        ResetEvent(invokeGate);
    } else {
        SetEvent(invokeGate);
    }
}

bool Host::WaitForHeldInvokes(int count, uint32_t timeoutMs) {
    for (uint32_t waited = 0; heldInvokes < count; waited += 5) {
        if (waited >= timeoutMs) return false;
        Sleep(5);
    }
    return true;
}

TBXBool TBXAPI Host::Invoke(TBXHandle object, TBXHandle context, const TBXMessageSink* sink, TBXUserData userData) {
    Host& h = Get();
    if (h.holdInvokes) {
        ++h.heldInvokes;
        WaitForSingleObject(h.invokeGate, INFINITE);
        --h.heldInvokes;
    }
    {
        std::lock_guard<std::mutex> lock(h.dataMutex);
        Object* o = h.LiveObject(object, "Invoke");
        Context* c = h.LiveContext(context, "Invoke");
        if (!o || !c || !sink) return 0;
        if (h.IsDestroyed(userData)) {
            h.Violation("Invoke for instance 0x%llx after its destroy", static_cast<unsigned long long>(userData));
        }
        if (userData != o->userData) {
            h.Violation("Invoke on \"%s\" with user data 0x%llx; the object belongs to 0x%llx", o->name.c_str(),
                        static_cast<unsigned long long>(userData), static_cast<unsigned long long>(o->userData));
        }
        if (c->object != object) h.Violation("Invoke on \"%s\" with a context of another object", o->name.c_str());
        if (sink->version != 1) h.Violation("Invoke with message sink version %u", sink->version);
        // Without callbacks the plug-in means post mode, also when the host refused the option.
        const bool callbacks = sink->OnMsgDone || sink->OnMsgAbort;
        if (callbacks && (c->postMode || !sink->OnMsgDone || !sink->OnMsgAbort)) {
            h.Violation("Invoke in %s mode with %s", c->postMode ? "post" : "reply",
                        c->postMode ? "callbacks" : "only one callback");
        }
        if (!h.invokeResult) return 0;
        // The sink is the caller's copy on its stack: take what is needed now.
        if (callbacks) {
            h.lastMessageSink = *sink;
            h.replies[c->id] = Reply{*sink, userData};
        }
        LARGE_INTEGER now;
        QueryPerformanceCounter(&now);
        h.sent.push_back(SentMessage{o->name, c->command, c->params, c->postMode, userData, now.QuadPart});
        // A sent context belongs to the host, which is done with it once recorded.
            h.contexts.erase(context);
    }
    h.messageSent.notify_all();
    return h.Yes();
}

void TBXAPI Host::RequestSideChannel(TBXHandle object, int32_t type, const char* pluginName) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Object* o = h.LiveObject(object, "RequestSideChannel");
    h.sideRequests.push_back(SideChannelRequest{o ? o->name : std::string(), type, pluginName ? pluginName : ""});
}

TBXBool TBXAPI Host::GetObjectOptions(TBXHandle object, uint32_t* options) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Object* o = h.LiveObject(object, "GetObjectOptions");
    if (!o || !options || !o->optionsOk) return 0;
    *options = o->options;
    return h.Yes();
}

uint32_t TBXAPI Host::GetContextId(TBXHandle context) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Context* c = h.LiveContext(context, "GetContextId");
    return c ? c->id : 0;
}

uint32_t TBXAPI Host::GetCommand(TBXHandle context) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Context* c = h.LiveContext(context, "GetCommand");
    return c ? c->command : 0;
}

void TBXAPI Host::SetCommand(TBXHandle context, uint32_t command) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    if (Context* c = h.LiveContext(context, "SetCommand")) c->command = command;
}

void TBXAPI Host::AppendParam(TBXHandle context, const TBXVariant* variant) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Context* c = h.LiveContext(context, "AppendParam");
    if (!c || !variant) return;
    Bytes value;
    if (variant->type == kVariantBlob && variant->blobData) {
        value.assign(variant->blobData, variant->blobData + variant->blobLength);
    }
    c->params.push_back(value);
}

void TBXAPI Host::GetParam(TBXHandle context, uint32_t index, TBXVariant* variant) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Context* c = h.LiveContext(context, "GetParam");
    if (!c || !variant || index >= c->params.size()) return;
    // The variant points into the context, which lives until the delivery has returned.
    const Bytes& blob = c->params[index];
    variant->type = kVariantBlob;
    variant->blobLength = static_cast<uint32_t>(blob.size());
    variant->blobData = blob.empty() ? nullptr : blob.data();
}

TBXBool TBXAPI Host::SetContextOption(TBXHandle context, uint32_t option, const TBXVariant* variant) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    Context* c = h.LiveContext(context, "SetContextOption");
    if (!h.setContextOptionResult || !c || !variant) return 0;
    if (option == 1 && variant->type == kVariantUInt32) c->postMode = variant->value == 1;
    return h.Yes();
}

void TBXAPI Host::VariantInit(TBXVariant* variant) {
    if (variant) *variant = TBXVariant{};
}

void TBXAPI Host::VariantClear(TBXVariant* variant) {
    if (variant) *variant = TBXVariant{};
}

void TBXAPI Host::VariantFromUInt32(TBXVariant* variant, uint32_t value) {
    if (!variant) return;
    *variant = TBXVariant{};
    variant->type = kVariantUInt32;
    variant->value = value;
}

void TBXAPI Host::VariantFromBlob(TBXVariant* variant, const TBXBlob* blobCopy) {
    if (!variant) return;
    *variant = TBXVariant{};
    Host& h = Get();
    // A caller that passes the pair as two arguments hands over its length here.
    if (!Readable(blobCopy, sizeof(TBXBlob))) {
        std::lock_guard<std::mutex> lock(h.dataMutex);
        h.Violation("VariantFromBlob: %p is not the address of a (length, pointer) structure", blobCopy);
        return;
    }
    if (blobCopy->length != 0 && !Readable(blobCopy->data, blobCopy->length)) {
        std::lock_guard<std::mutex> lock(h.dataMutex);
        h.Violation("VariantFromBlob: %u bytes at %p can't be read", blobCopy->length, blobCopy->data);
        return;
    }
    variant->type = kVariantBlob;
    variant->blobLength = blobCopy->length;
    variant->blobData = blobCopy->data;
}

}  // namespace sim
