// A client process the end-to-end tests can kill:
//   zor_client <hostPid> pipe-hold <module>  maps the system area (command 3),
//                                            opens a pipe (commands 11 and 8),
//                                            sends one empty request, prints
//                                            "answer=<hex>" and "ready" and
//                                            waits to be killed
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "zor/zor_client.h"

int main(int argc, char** argv) {
    if (argc < 4 || std::string(argv[2]) != "pipe-hold") return 64;
    ZorConnection* c = nullptr;
    if (zor_connect_pid(&c, static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10)), 10000) != ZOR_OK)
        return 2;
    std::uint32_t answer = 0;
    if (zor_system_area(c, 0x2000, nullptr) != ZOR_OK || zor_pipe_open(c) != ZOR_OK) return 1;
    if (zor_pipe_call(c, static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 0)), 0, "", 0, &answer) != ZOR_OK)
        return 3;
    std::printf("answer=%x\nready\n", answer);
    std::fflush(stdout);
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}
