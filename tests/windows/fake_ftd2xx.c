/* A stand-in for the vendor's FTD2XX.dll (libftd2xx.so on Linux), written
 * from its published interface: the same names, WINAPI calls and Windows
 * types, and the FT_DEVICE_LIST_INFO_NODE record. Two bridges are attached, each with an
 * instrument that answers every CM2 query with an acknowledged reply of the
 * words asked for. Every call but FT_Read is written to a log that the test
 * reads through fake_ftd2xx_log(); reads are left out because how a reply is
 * split over them is the library's business. */
#include <stdio.h>
#include <string.h>

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#define FAKE_API __declspec(dllexport)
#else
/* The Linux driver keeps the Windows names, with 32-bit ULONG and DWORD. */
#include <stdint.h>
typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef DWORD *LPDWORD;
typedef void *PVOID;
typedef void *LPVOID;
typedef unsigned char UCHAR;
#define WINAPI
#define FAKE_API __attribute__((visibility("default")))
#endif

typedef PVOID FT_HANDLE;
typedef ULONG FT_STATUS;

enum { FT_OK = 0, FT_INVALID_HANDLE = 1, FT_DEVICE_NOT_FOUND = 2, FT_INVALID_PARAMETER = 6 };

typedef struct _ft_device_list_info_node {
    ULONG Flags;
    ULONG Type;
    ULONG ID;
    DWORD LocId;
    char SerialNumber[16];
    char Description[64];
    FT_HANDLE ftHandle;
} FT_DEVICE_LIST_INFO_NODE;

#define BRIDGES 2

typedef struct {
    int open;
    unsigned char pending[256];
    DWORD pending_length;
    DWORD pending_offset;
} Bridge;

static Bridge g_bridges[BRIDGES];
static char g_log[4096];

static void note(const char *format, long a, long b, long c) {
    const size_t used = strlen(g_log);
    snprintf(g_log + used, sizeof g_log - used, format, a, b, c);
}

static int bridge_index(FT_HANDLE handle) {
    int i;
    for (i = 0; i < BRIDGES; ++i)
        if (handle == &g_bridges[i] && g_bridges[i].open) return i;
    return -1;
}

/* The CRC-32 of CM2 packets (reflected, polynomial 0xEDB88320). */
static DWORD crc32(const unsigned char *bytes, DWORD length) {
    DWORD crc = 0xFFFFFFFFu;
    DWORD i;
    int bit;
    for (i = 0; i < length; ++i) {
        crc ^= bytes[i];
        for (bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

/* A CM2 query is 32 bytes: preamble, header with service 0x0D and the word
 * count in DataLen (bytes 17-18), CRC. The answer keeps the register and
 * address, swaps target and source, carries the words (zero) and an ACK. */
static void answer_query(Bridge *bridge, const unsigned char *query) {
    unsigned char *reply = bridge->pending;
    const DWORD words = ((DWORD)query[17] << 8) | query[18];
    const DWORD length = 28 + 4 * words + 4;
    DWORD crc;
    if (length > sizeof bridge->pending) return;
    memset(reply, 0, length);
    memcpy(reply, query, 28);
    memcpy(reply + 9, query + 11, 2);
    memcpy(reply + 11, query + 9, 2);
    reply[13] = 0xE0;
    reply[25] = 0;
    reply[26] = 0;
    reply[27] = 0xAC;
    crc = crc32(reply + 8, length - 12);
    reply[length - 4] = (unsigned char)(crc >> 24);
    reply[length - 3] = (unsigned char)(crc >> 16);
    reply[length - 2] = (unsigned char)(crc >> 8);
    reply[length - 1] = (unsigned char)crc;
    bridge->pending_length = length;
    bridge->pending_offset = 0;
}

FAKE_API const char *WINAPI fake_ftd2xx_log(void) {
    return g_log;
}

FAKE_API FT_STATUS WINAPI FT_CreateDeviceInfoList(LPDWORD lpdwNumDevs) {
    *lpdwNumDevs = BRIDGES;
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_GetDeviceInfoList(FT_DEVICE_LIST_INFO_NODE *pDest, LPDWORD lpdwNumDevs) {
    int i;
    /* The driver fills every entry of its list, whatever the count says. */
    for (i = 0; i < BRIDGES; ++i) {
        FT_DEVICE_LIST_INFO_NODE *node = &pDest[i];
        memset(node, 0xFF, sizeof *node);
        node->Flags = 2;
        node->Type = 5;
        node->ID = 0x04036001u;
        node->LocId = 0x1231u + (DWORD)i;
        snprintf(node->SerialNumber, sizeof node->SerialNumber, "FK00000%d", i + 1);
        snprintf(node->Description, sizeof node->Description, "Fake Bridge %c", 'A' + i);
        node->ftHandle = NULL;
    }
    *lpdwNumDevs = BRIDGES;
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_Open(int deviceNumber, FT_HANDLE *pHandle) {
    note("open %ld;", deviceNumber, 0, 0);
    if (deviceNumber < 0 || deviceNumber >= BRIDGES) return FT_DEVICE_NOT_FOUND;
    g_bridges[deviceNumber].open = 1;
    *pHandle = &g_bridges[deviceNumber];
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_Close(FT_HANDLE ftHandle) {
    const int i = bridge_index(ftHandle);
    note("close %ld;", i, 0, 0);
    if (i < 0) return FT_INVALID_HANDLE;
    g_bridges[i].open = 0;
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_SetTimeouts(FT_HANDLE ftHandle, ULONG ReadTimeout, ULONG WriteTimeout) {
    note("timeouts %ld %ld %ld;", bridge_index(ftHandle), (long)ReadTimeout, (long)WriteTimeout);
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_SetLatencyTimer(FT_HANDLE ftHandle, UCHAR ucLatency) {
    note("latency %ld %ld;", bridge_index(ftHandle), ucLatency, 0);
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_SetUSBParameters(FT_HANDLE ftHandle, ULONG ulInTransferSize,
                                              ULONG ulOutTransferSize) {
    note("usb %ld %ld %ld;", bridge_index(ftHandle), (long)ulInTransferSize, (long)ulOutTransferSize);
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_Purge(FT_HANDLE ftHandle, ULONG Mask) {
    const int i = bridge_index(ftHandle);
    note("purge %ld %ld;", i, (long)Mask, 0);
    if (i < 0) return FT_INVALID_HANDLE;
    if (Mask & 1) g_bridges[i].pending_length = g_bridges[i].pending_offset = 0;
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_ResetDevice(FT_HANDLE ftHandle) {
    note("reset %ld;", bridge_index(ftHandle), 0, 0);
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_Write(FT_HANDLE ftHandle, LPVOID lpBuffer, DWORD dwBytesToWrite,
                                   LPDWORD lpBytesWritten) {
    const int i = bridge_index(ftHandle);
    const unsigned char *bytes = (const unsigned char *)lpBuffer;
    note("write %ld %ld;", i, (long)dwBytesToWrite, 0);
    if (i < 0) return FT_INVALID_HANDLE;
    if (dwBytesToWrite == 32 && bytes[7] == 0xAB && bytes[13] == 0x0D) answer_query(&g_bridges[i], bytes);
    *lpBytesWritten = dwBytesToWrite;
    return FT_OK;
}

/* Hands over what is pending at once; with nothing pending the real driver
 * would wait out the read limit, which changes nothing for the library. */
FAKE_API FT_STATUS WINAPI FT_Read(FT_HANDLE ftHandle, LPVOID lpBuffer, DWORD dwBytesToRead,
                                  LPDWORD lpBytesReturned) {
    const int i = bridge_index(ftHandle);
    Bridge *bridge;
    DWORD count;
    if (i < 0) return FT_INVALID_HANDLE;
    if (lpBuffer == NULL || lpBytesReturned == NULL) return FT_INVALID_PARAMETER;
    bridge = &g_bridges[i];
    count = bridge->pending_length - bridge->pending_offset;
    if (count > dwBytesToRead) count = dwBytesToRead;
    memcpy(lpBuffer, bridge->pending + bridge->pending_offset, count);
    bridge->pending_offset += count;
    *lpBytesReturned = count;
    return FT_OK;
}
