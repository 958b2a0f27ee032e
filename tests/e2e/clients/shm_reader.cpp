// A second process for the shared-memory end-to-end test: it reads the
// handle value of the system area (valid in this process) from its standard
// input, maps the area, checks the header the host wrote, and watches the
// event sequence number advance. It leaves a mark in the area for the host
// to see. Exit code 0 when the sequence advanced at least three times.
#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include "zor/zor_module.h"

int main(int argc, char** argv) {
    if (argc < 2) return 10;
    const unsigned long size = std::strtoul(argv[1], nullptr, 10);
    char line[64] = {};
    if (!std::fgets(line, sizeof line, stdin)) return 11;
    const unsigned long long value = std::strtoull(line, nullptr, 10);
    HANDLE mapping = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(value));
    auto* area = static_cast<volatile LONG*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
    if (!area) {
        std::printf("shm_reader: map of %llu failed (%lu)\n", value, GetLastError());
        return 2;
    }
    const LONG capacity = area[ZOR_SSA_CAPACITY / 4];
    if (static_cast<unsigned long>(capacity) != size - ZOR_SSA_QUEUE) {
        std::printf("shm_reader: capacity %ld, expected %lu\n", capacity, size - ZOR_SSA_QUEUE);
        return 3;
    }
    const LONG first = InterlockedCompareExchange(&area[0], 0, 0);
    LONG last = first;
    unsigned changes = 0;
    const ULONGLONG t0 = GetTickCount64();
    while (changes < 3 && GetTickCount64() - t0 < 10000) {
        const LONG now = InterlockedCompareExchange(&area[0], 0, 0);
        if (now != last) {
            ++changes;
            last = now;
        }
        Sleep(1);
    }
    std::printf("shm_reader: sequence %ld -> %ld, %u changes seen\n", first, last, changes);
    InterlockedExchange(&area[(ZOR_SSA_RESULTS + 4 * 1023) / 4], 0xC0FFEE);
    UnmapViewOfFile(const_cast<LONG*>(area));
    CloseHandle(mapping);
    return changes >= 3 ? 0 : 4;
}
