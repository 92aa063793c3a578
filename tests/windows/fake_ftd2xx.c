/* A stand-in for the vendor's FTD2XX.dll (libftd2xx.so on Linux), written
 * from its published interface: the same names, WINAPI calls and Windows
 * types, and the FT_DEVICE_LIST_INFO_NODE record. Two bridges are attached,
 * each with an instrument that answers every CM2 query with an acknowledged
 * reply of the words asked for. Every call but the listing and FT_Read is
 * written to a log that the tests read through fake_ftd2xx_log(); reads are
 * left out because how a reply is split over them is the library's business. */
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
typedef unsigned char UCHAR;
#define WINAPI
#define FAKE_API __attribute__((visibility("default")))
#endif

typedef void *FT_HANDLE;
typedef ULONG FT_STATUS;

enum { FT_OK = 0, FT_INVALID_HANDLE = 1, FT_DEVICE_NOT_FOUND = 2 };

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

/* The index of the open bridge of a handle, or -1. */
static int find(FT_HANDLE handle) {
    int i = BRIDGES - 1;
    while (i >= 0 && (handle != &g_bridges[i] || !g_bridges[i].open)) --i;
    return i;
}

/* Logs a call on a handle, named by its bridge's index, and gives the index.
 * The calls that only log return "note(...) < 0": FT_INVALID_HANDLE (1) for
 * a handle not open, else FT_OK. */
static int note(const char *format, FT_HANDLE handle, long b, long c) {
    const size_t used = strlen(g_log);
    snprintf(g_log + used, sizeof g_log - used, format, (long)find(handle), b, c);
    return find(handle);
}

/* A CM2 query is 32 bytes: preamble, header with service 0x0D and the word
 * count in DataLen (bytes 17-18), CRC. The answer keeps the register and
 * address, swaps target and source, carries the words (zero) and an ACK,
 * and ends in the CRC-32 (reflected, polynomial 0xEDB88320) of all but the
 * preamble. */
static void answer_query(Bridge *bridge, const unsigned char *query) {
    unsigned char *reply = bridge->pending;
    const DWORD length = 28 + 4 * (((DWORD)query[17] << 8) | query[18]) + 4;
    DWORD crc = 0xFFFFFFFFu, i;
    if (length > sizeof bridge->pending) return;
    memset(reply, 0, length);
    memcpy(reply, query, 25);
    memcpy(reply + 9, query + 11, 2);
    memcpy(reply + 11, query + 9, 2);
    reply[13] = 0xE0;
    reply[27] = 0xAC;
    for (i = 8; i < length - 4; ++i) {
        int bit;
        crc ^= reply[i];
        for (bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    for (i = 0; i < 4; ++i) reply[length - 4 + i] = (unsigned char)(~crc >> (24 - 8 * i));
    bridge->pending_length = length;
    bridge->pending_offset = 0;
}

FAKE_API const char *WINAPI fake_ftd2xx_log(void) {
    return g_log;
}

FAKE_API FT_STATUS WINAPI FT_CreateDeviceInfoList(DWORD *lpdwNumDevs) {
    *lpdwNumDevs = BRIDGES;
    return FT_OK;
}

/* The driver fills every entry of its list, whatever the count says, and
 * pads its texts with FF. */
FAKE_API FT_STATUS WINAPI FT_GetDeviceInfoList(FT_DEVICE_LIST_INFO_NODE *pDest, DWORD *lpdwNumDevs) {
    int i;
    for (i = 0; i < BRIDGES; ++i) {
        memset(&pDest[i], 0xFF, sizeof pDest[i]);
        snprintf(pDest[i].SerialNumber, sizeof pDest[i].SerialNumber, "FK00000%d", i + 1);
        snprintf(pDest[i].Description, sizeof pDest[i].Description, "Fake Bridge %c", 'A' + i);
    }
    *lpdwNumDevs = BRIDGES;
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_Open(int deviceNumber, FT_HANDLE *pHandle) {
    snprintf(g_log + strlen(g_log), sizeof g_log - strlen(g_log), "open %d;", deviceNumber);
    if (deviceNumber < 0 || deviceNumber >= BRIDGES) return FT_DEVICE_NOT_FOUND;
    g_bridges[deviceNumber].open = 1;
    *pHandle = &g_bridges[deviceNumber];
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_Close(FT_HANDLE ftHandle) {
    const int i = note("close %ld;", ftHandle, 0, 0);
    if (i < 0) return FT_INVALID_HANDLE;
    g_bridges[i].open = 0;
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_SetTimeouts(FT_HANDLE ftHandle, ULONG ReadTimeout, ULONG WriteTimeout) {
    return note("timeouts %ld %ld %ld;", ftHandle, (long)ReadTimeout, (long)WriteTimeout) < 0;
}

FAKE_API FT_STATUS WINAPI FT_SetLatencyTimer(FT_HANDLE ftHandle, UCHAR ucLatency) {
    return note("latency %ld %ld;", ftHandle, ucLatency, 0) < 0;
}

FAKE_API FT_STATUS WINAPI FT_SetUSBParameters(FT_HANDLE ftHandle, ULONG ulInTransferSize,
                                              ULONG ulOutTransferSize) {
    return note("usb %ld %ld %ld;", ftHandle, (long)ulInTransferSize, (long)ulOutTransferSize) < 0;
}

FAKE_API FT_STATUS WINAPI FT_Purge(FT_HANDLE ftHandle, ULONG Mask) {
    const int i = note("purge %ld %ld;", ftHandle, (long)Mask, 0);
    if (i < 0) return FT_INVALID_HANDLE;
    if (Mask & 1) g_bridges[i].pending_length = g_bridges[i].pending_offset = 0;
    return FT_OK;
}

FAKE_API FT_STATUS WINAPI FT_ResetDevice(FT_HANDLE ftHandle) {
    return note("reset %ld;", ftHandle, 0, 0) < 0;
}

FAKE_API FT_STATUS WINAPI FT_Write(FT_HANDLE ftHandle, void *lpBuffer, DWORD dwBytesToWrite,
                                   DWORD *lpBytesWritten) {
    const int i = note("write %ld %ld;", ftHandle, (long)dwBytesToWrite, 0);
    const unsigned char *bytes = (const unsigned char *)lpBuffer;
    if (i < 0) return FT_INVALID_HANDLE;
    if (dwBytesToWrite == 32 && bytes[7] == 0xAB && bytes[13] == 0x0D) answer_query(&g_bridges[i], bytes);
    *lpBytesWritten = dwBytesToWrite;
    return FT_OK;
}

/* Hands over what is pending at once; with nothing pending the real driver
 * would wait out the read limit, which changes nothing for the library. */
FAKE_API FT_STATUS WINAPI FT_Read(FT_HANDLE ftHandle, void *lpBuffer, DWORD dwBytesToRead,
                                  DWORD *lpBytesReturned) {
    const int i = find(ftHandle);
    Bridge *bridge;
    DWORD count;
    if (i < 0) return FT_INVALID_HANDLE;
    bridge = &g_bridges[i];
    count = bridge->pending_length - bridge->pending_offset;
    if (count > dwBytesToRead) count = dwBytesToRead;
    memcpy(lpBuffer, bridge->pending + bridge->pending_offset, count);
    bridge->pending_offset += count;
    *lpBytesReturned = count;
    return FT_OK;
}
