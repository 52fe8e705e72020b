#include "sim/host_sim.h"

#include "sim/authenticator_client.h"

#include <chrono>
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
}

// --- Calls into the plug-in ---

bool Host::Init() { return exports.init && exports.init(0x484F5354, &Host::QueryInterface) != 0; }
bool Host::Exit() { return exports.exit && exports.exit() != 0; }

bool Host::CreateInstance(TBXUserData* instance) {
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    return exports.createInstance && exports.createInstance(reinterpret_cast<TBXHandle>(0xC0FFEE), instance) != 0;
}

bool Host::DestroyInstance(TBXUserData instance) {
    return exports.destroyInstance && exports.destroyInstance(instance) != 0;
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

bool Host::DeliverMsgDone(TBXUserData instance, uint32_t messageId) {
    TBXMessageSink sink;
    {
        std::lock_guard<std::mutex> lock(dataMutex);
        sink = lastMessageSink;
    }
    if (!sink.OnMsgDone) return false;
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    sink.OnMsgDone(instance, messageId, 0);
    return true;
}

bool Host::DeliverMsgAbort(TBXUserData instance, uint32_t messageId) {
    TBXMessageSink sink;
    {
        std::lock_guard<std::mutex> lock(dataMutex);
        sink = lastMessageSink;
    }
    if (!sink.OnMsgAbort) return false;
    std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
    sink.OnMsgAbort(instance, messageId, 1, 0x80004004);
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
            return 1;
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
            return 1;
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
            return 1;
        }
        case 0x0000: {
            TBXVariantInterface t{};
            t.VariantInit = VariantInit;
            t.VariantClear = VariantClear;
            t.VariantFromUInt32 = VariantFromUInt32;
            t.VariantFromBlob = VariantFromBlob;
            memcpy(table, &t, sizeof(t));
            return 1;
        }
        case 0x000E:
        case 0x000C:
            memset(table, 0, sizeof(TBXStreamDataInterface));
            return 1;
        case 0x0019:
        case 0x0018:
        case 0x0016:
        case 0x0007:
        case 0x0005:
            memset(table, 0, sizeof(TBXClientOverlayInterface));
            return 1;
        default:
            return 0;
    }
}

TBXBool TBXAPI Host::RegisterChannelNotifySink(const TBXChannelSink* sink, TBXUserData userData, int32_t* handle) {
    if (!sink || !handle || sink->version != 1) return 0;
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    *handle = h.nextSink++;
    h.sinks[*handle] = Sink{*sink, userData};
    return 1;
}

TBXBool TBXAPI Host::UnregisterChannelNotifySink(int32_t handle) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    return h.sinks.erase(handle) ? 1 : 0;
}

TBXBool TBXAPI Host::Connect() {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    ++h.connectCalls;
    return h.connectResult ? 1 : 0;
}

TBXBool TBXAPI Host::Disconnect() {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    ++h.disconnectCalls;
    return h.disconnectResult ? 1 : 0;
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
    if (!name || !sink || !object || !h.createObjectResult) return 0;
    TBXHandle handle = reinterpret_cast<TBXHandle>(h.nextHandle++);
    Object o{name, *static_cast<const TBXControlObjectSink*>(sink), userData, flags, TBX_STATE_PENDING, 0, true};
    h.objects[handle] = o;
    h.created.push_back(CreatedObject{name, flags, userData});
    *object = handle;
    return 1;
}

TBXBool TBXAPI Host::DestroyChannelObject(TBXHandle object) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto it = h.objects.find(object);
    if (it == h.objects.end()) return 0;
    h.destroyed.push_back(it->second.name);
    h.objects.erase(it);
    return 1;
}

int32_t TBXAPI Host::GetObjectState(TBXHandle object) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto it = h.objects.find(object);
    return it == h.objects.end() ? TBX_STATE_UNINITIALIZED : it->second.state;
}

TBXBool TBXAPI Host::CreateContext(TBXHandle object, TBXHandle* context) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    if (!context || !h.objects.count(object)) return 0;
    *context = reinterpret_cast<TBXHandle>(h.nextHandle++);
    h.contexts[*context] = Context{h.nextContextId++, object, 0, {}, false};
    return 1;
}

TBXBool TBXAPI Host::DestroyContext(TBXHandle context) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    return h.contexts.erase(context) ? 1 : 0;
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
        auto o = h.objects.find(object);
        auto c = h.contexts.find(context);
        if (!h.invokeResult || o == h.objects.end() || c == h.contexts.end() || !sink) return 0;
        // The sink is the caller's copy on its stack: take what is needed now.
        if (sink->OnMsgDone || sink->OnMsgAbort) h.lastMessageSink = *sink;
        LARGE_INTEGER now;
        QueryPerformanceCounter(&now);
        h.sent.push_back(SentMessage{o->second.name, c->second.command, c->second.params, c->second.postMode, userData,
                                     now.QuadPart});
        // A sent context belongs to the host, which is done with it once recorded.
        h.contexts.erase(c);
    }
    h.messageSent.notify_all();
    return 1;
}

void TBXAPI Host::RequestSideChannel(TBXHandle object, int32_t type, const char* pluginName) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto o = h.objects.find(object);
    h.sideRequests.push_back(
        SideChannelRequest{o == h.objects.end() ? std::string() : o->second.name, type, pluginName ? pluginName : ""});
}

TBXBool TBXAPI Host::GetObjectOptions(TBXHandle object, uint32_t* options) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto o = h.objects.find(object);
    if (o == h.objects.end() || !options || !o->second.optionsOk) return 0;
    *options = o->second.options;
    return 1;
}

uint32_t TBXAPI Host::GetContextId(TBXHandle context) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto c = h.contexts.find(context);
    return c == h.contexts.end() ? 0 : c->second.id;
}

uint32_t TBXAPI Host::GetCommand(TBXHandle context) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto c = h.contexts.find(context);
    return c == h.contexts.end() ? 0 : c->second.command;
}

void TBXAPI Host::SetCommand(TBXHandle context, uint32_t command) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto c = h.contexts.find(context);
    if (c != h.contexts.end()) c->second.command = command;
}

void TBXAPI Host::AppendParam(TBXHandle context, const TBXVariant* variant) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto c = h.contexts.find(context);
    if (c == h.contexts.end() || !variant) return;
    Bytes value;
    if (variant->type == kVariantBlob && variant->blobData) {
        value.assign(variant->blobData, variant->blobData + variant->blobLength);
    }
    c->second.params.push_back(value);
}

void TBXAPI Host::GetParam(TBXHandle context, uint32_t index, TBXVariant* variant) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto c = h.contexts.find(context);
    if (c == h.contexts.end() || !variant || index >= c->second.params.size()) return;
    // The variant points into the context, which lives until the delivery has returned.
    const Bytes& blob = c->second.params[index];
    variant->type = kVariantBlob;
    variant->blobLength = static_cast<uint32_t>(blob.size());
    variant->blobData = blob.empty() ? nullptr : blob.data();
}

TBXBool TBXAPI Host::SetContextOption(TBXHandle context, uint32_t option, const TBXVariant* variant) {
    Host& h = Get();
    std::lock_guard<std::mutex> lock(h.dataMutex);
    auto c = h.contexts.find(context);
    if (!h.setContextOptionResult || c == h.contexts.end() || !variant) return 0;
    if (option == 1 && variant->type == kVariantUInt32) c->second.postMode = variant->value == 1;
    return 1;
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

void TBXAPI Host::VariantFromBlob(TBXVariant* variant, uint32_t length, const uint8_t* data) {
    if (!variant) return;
    *variant = TBXVariant{};
    variant->type = kVariantBlob;
    variant->blobLength = length;
    variant->blobData = data;
}

}  // namespace sim
