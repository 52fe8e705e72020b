// The contract with the host's channel service TBXService: the tables of functions it hands
// out through QueryInterface, the sinks through which it calls back, and the values both
// sides use. The plug-in and the host simulator include only this header for it.
//
// Everything crosses a DLL boundary, so only plain C types are used: results are TBXBool
// (0 false), host objects are opaque machine words, and user data is a 64-bit handle.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
#define TBXAPI __stdcall
#else
#define TBXAPI
#endif

extern "C" {

typedef int32_t TBXBool;
typedef void* TBXHandle;      // a channel, channel object or context of the host
typedef uint64_t TBXUserData;  // a handle of the plug-in's registries, never a pointer

struct TBXGuid {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};

// {A500A600-nnnn-81E2-88C1-29A7D3A93A62}
constexpr TBXGuid TbxInterfaceId(uint16_t n) {
    return TBXGuid{0xA500A600u, n, 0x81E2, {0x88, 0xC1, 0x29, 0xA7, 0xD3, 0xA9, 0x3A, 0x62}};
}

typedef TBXBool(TBXAPI* TBXQueryInterfaceFn)(const TBXGuid* id, void* table);

enum TBXState : int32_t {
    TBX_STATE_UNINITIALIZED = -1,
    TBX_STATE_DISCONNECTED = 0,
    TBX_STATE_PENDING = 1,
    TBX_STATE_CONNECTED = 2,
    TBX_STATE_SIDE_CHANNEL_PENDING = 3,
    TBX_STATE_SIDE_CHANNEL_CONNECTED = 4,
    TBX_STATE_PENDING_AND_PEER_OBJ_CREATED = 5,
};

enum TBXSessionType : int32_t {
    TBX_SESSION_NONE = -1,
    TBX_SESSION_NORIX = 0,
    TBX_SESSION_KELDA = 1,
};

enum TBXSideChannelType : int32_t {
    TBX_SIDE_CHANNEL_VIRTUAL = 1,
    TBX_SIDE_CHANNEL_TCP = 2,
    TBX_SIDE_CHANNEL_ZEPH = 3,
};

// A blob argument: the (length, pointer) pair as the variant holds it at its offset 8. It is
// one argument; by the x64 convention for a 16-byte structure the caller passes the address
// of a copy.
struct TBXBlob {
    uint32_t length;
    const uint8_t* data;
};
static_assert(sizeof(TBXBlob) == 16, "a blob argument is 16 bytes");
static_assert(offsetof(TBXBlob, data) == 8, "its pointer at 8");

// A host variant: 24 bytes, blob length at 8 and blob pointer at 16.
struct TBXVariant {
    uint32_t type;
    uint32_t value;
    uint32_t blobLength;
    uint32_t reserved;
    const uint8_t* blobData;
};
static_assert(sizeof(TBXVariant) == 24, "a variant is 24 bytes");
static_assert(offsetof(TBXVariant, blobLength) == 8, "blob length at 8");
static_assert(offsetof(TBXVariant, blobData) == 16, "blob pointer at 16");
static_assert(offsetof(TBXVariant, blobData) - offsetof(TBXVariant, blobLength) == offsetof(TBXBlob, data),
              "the variant holds a blob argument's layout at 8");

// --- Sinks: a version word (1), then the callbacks. The first argument is the user data. ---

struct TBXChannelSink {
    uint32_t version;
    void(TBXAPI* OnConnectionStateChanged)(TBXUserData, int32_t current, int32_t reported, uintptr_t unused);
    void(TBXAPI* OnChannelStateChanged)(TBXUserData, int32_t current, int32_t reported, uintptr_t unused);
    void(TBXAPI* OnPeerChannelObjectCreated)(TBXUserData, const char* name);
};

struct TBXControlObjectSink {
    uint32_t version;
    void(TBXAPI* OnControlMsgInvoke)(TBXUserData, TBXHandle context);
    void(TBXAPI* OnChannelControlObjectStateChanged)(TBXUserData, int32_t unused);
};

struct TBXDataObjectSink {
    uint32_t version;
    void(TBXAPI* OnDataMsgInvoke)(TBXUserData, TBXHandle context);
    void(TBXAPI* OnChannelDataObjectStateChanged)(TBXUserData, int32_t unused);
};

struct TBXMessageSink {
    uint32_t version;
    void(TBXAPI* OnMsgDone)(TBXUserData, uint32_t messageId, uintptr_t hostWord);
    void(TBXAPI* OnMsgAbort)(TBXUserData, uint32_t messageId, int8_t flag, uint32_t code);
};

struct TBXServerSink {
    uint32_t version;
    TBXBool(TBXAPI* OnServerConnected)(TBXUserData, int32_t sessionType, TBXHandle serverId);
    TBXBool(TBXAPI* OnServerDisconnected)(TBXUserData, TBXHandle serverId);
    TBXBool(TBXAPI* OnServerInstanceCreated)(TBXUserData, TBXHandle serverId, TBXUserData* instance);
    TBXBool(TBXAPI* OnServerInstanceDestroyed)(TBXUserData, TBXUserData instance, TBXHandle serverId);
};

// --- Tables, slot by slot. Slots this system doesn't call are kept as opaque pointers. ---

typedef void(TBXAPI* TBXUnusedSlot)();

// TBXService_ChannelInterface and _V2: 15 slots.
struct TBXChannelInterface {
    TBXUnusedSlot slot0, slot1, slot2, slot3;
    TBXBool(TBXAPI* RegisterChannelNotifySink)(const TBXChannelSink* sink, TBXUserData userData, int32_t* sinkHandle);
    TBXBool(TBXAPI* UnregisterChannelNotifySink)(int32_t sinkHandle);
    TBXBool(TBXAPI* Connect)();
    TBXBool(TBXAPI* Disconnect)();
    int32_t(TBXAPI* GetChannelState)();
    TBXUnusedSlot slot9, slot10;
    int32_t(TBXAPI* GetSessionType)();
    TBXUnusedSlot slot12, slot13, slot14;
};

// TBXRPC_ChannelObjectInterface: 13 slots.
struct TBXChannelObjectInterface {
    TBXUnusedSlot slot0;
    TBXBool(TBXAPI* CreateChannelObject)(const char* name, const void* sink, TBXUserData userData, uint32_t flags,
                                         TBXHandle* object);
    TBXBool(TBXAPI* DestroyChannelObject)(TBXHandle object);
    int32_t(TBXAPI* GetObjectState)(TBXHandle object);
    TBXUnusedSlot slot4;
    TBXBool(TBXAPI* CreateContext)(TBXHandle object, TBXHandle* context);
    TBXBool(TBXAPI* DestroyContext)(TBXHandle context);
    TBXBool(TBXAPI* Invoke)(TBXHandle object, TBXHandle context, const TBXMessageSink* sink, TBXUserData userData);
    TBXUnusedSlot slot8;
    void(TBXAPI* RequestSideChannel)(TBXHandle object, int32_t type, const char* pluginName);
    TBXBool(TBXAPI* GetObjectOptions)(TBXHandle object, uint32_t* options);  // may be null
    TBXUnusedSlot slot11, slot12;
};

// TBXRPC_ChannelContextInterface: 19 slots.
struct TBXChannelContextInterface {
    TBXUnusedSlot slot0;
    uint32_t(TBXAPI* GetContextId)(TBXHandle context);
    uint32_t(TBXAPI* GetCommand)(TBXHandle context);
    void(TBXAPI* SetCommand)(TBXHandle context, uint32_t command);
    TBXUnusedSlot slot4, slot5, slot6;
    void(TBXAPI* AppendParam)(TBXHandle context, const TBXVariant* variant);
    void(TBXAPI* GetParam)(TBXHandle context, uint32_t index, TBXVariant* variant);
    TBXUnusedSlot slot9, slot10, slot11, slot12, slot13, slot14, slot15, slot16, slot17;
    TBXBool(TBXAPI* SetContextOption)(TBXHandle context, uint32_t option, const TBXVariant* variant);
};

// TBXRPC_VariantInterface: 15 slots.
struct TBXVariantInterface {
    TBXUnusedSlot slot0;
    void(TBXAPI* VariantInit)(TBXVariant* variant);
    TBXUnusedSlot slot2;
    void(TBXAPI* VariantClear)(TBXVariant* variant);
    TBXUnusedSlot slot4, slot5, slot6, slot7;
    void(TBXAPI* VariantFromUInt32)(TBXVariant* variant, uint32_t value);
    TBXUnusedSlot slot9, slot10, slot11, slot12, slot13;
    void(TBXAPI* VariantFromBlob)(TBXVariant* variant, TBXBlob blob);
};

// Tables that are fetched but whose functions this system never calls.
struct TBXStreamDataInterface { TBXUnusedSlot slots[9]; };
struct TBXClientOverlayInterface { TBXUnusedSlot slots[26]; };
struct TBXGuestOverlayInterface { TBXUnusedSlot slots[25]; };
// TBXService_ServerInterface: slot 6 gives the channel word of a server id.
struct TBXServerInterface {
    TBXUnusedSlot slot0, slot1, slot2, slot3, slot4, slot5;
    TBXHandle(TBXAPI* GetServerChannel)(TBXHandle serverId);
    TBXUnusedSlot rest[9];
};

static_assert(sizeof(TBXChannelInterface) == 15 * sizeof(void*), "channel table");
static_assert(sizeof(TBXChannelObjectInterface) == 13 * sizeof(void*), "object table");
static_assert(sizeof(TBXChannelContextInterface) == 19 * sizeof(void*), "context table");
static_assert(sizeof(TBXVariantInterface) == 15 * sizeof(void*), "variant table");
static_assert(sizeof(TBXServerInterface) == 16 * sizeof(void*), "server table");

// The ids of each table, tried left to right.
constexpr uint16_t kTbxChannelV2Ids[] = {0x000B, 0x0010};
constexpr uint16_t kTbxChannelIds[] = {0x0006};
constexpr uint16_t kTbxChannelObjectIds[] = {0x0012, 0x000F, 0x000A, 0x0002};
constexpr uint16_t kTbxChannelContextIds[] = {0x0008, 0x0003};
constexpr uint16_t kTbxVariantIds[] = {0x0000};
constexpr uint16_t kTbxStreamDataIds[] = {0x000E, 0x000C};
constexpr uint16_t kTbxClientOverlayIds[] = {0x0019, 0x0018, 0x0016, 0x0007, 0x0005};
constexpr uint16_t kTbxServerIds[] = {0x0011};
constexpr uint16_t kTbxGuestOverlayIds[] = {0x0017, 0x0015, 0x0009, 0x0004};

// --- The plug-in's exports, as the host calls them. ---
typedef TBXBool(TBXAPI* TBXPluginInitFn)(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface);
typedef TBXBool(TBXAPI* TBXPluginExitFn)();
typedef TBXBool(TBXAPI* TBXPluginCreateInstanceFn)(TBXHandle channel, TBXUserData* instance);
typedef TBXBool(TBXAPI* TBXPluginDestroyInstanceFn)(TBXUserData instance);
typedef int32_t(TBXAPI* TBXPluginGetTokenNameFn)(char* buffer, int32_t size);

}  // extern "C"
