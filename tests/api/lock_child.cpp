// A second host process for the machine-wide lock tests. It does its work from the log sink
// on the "call:" line, which the library writes while it holds the lock.
//   lock_child append FILE TAG COUNT   append COUNT lines "TAG i" to FILE, slowly
//   lock_child die FILE                write "holding" to FILE, then die without unlocking
//   lock_child hold FILE MS            write "holding" to FILE, hold the lock MS milliseconds
//   lock_child until FILE SIGNAL       write "holding" to FILE, hold the lock until SIGNAL
//                                      exists (a minute at most)
//   lock_child call -                  one call; prints its result and why it failed
#include <qob/qob.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

namespace {

std::string g_mode, g_file, g_tag, g_signal;
int g_count = 0;

void Sink(int, const char* text, void*) {
    if (g_mode == "call" && std::strstr(text, "cross-process lock") != nullptr) {
        std::printf("%s\n", text);
    }
    if (std::strstr(text, "call: QOB_Constructor") == nullptr) {
        return;
    }
    if (g_mode == "append") {
        for (int i = 0; i < g_count; ++i) {
            std::ofstream out(g_file, std::ios::app | std::ios::binary);
            out << g_tag << ' ' << i << '\n';
            out.close();
            std::this_thread::sleep_for(std::chrono::milliseconds(15));
        }
    } else if (g_mode == "until") {
        {
            std::ofstream out(g_file, std::ios::binary);
            out << "holding\n";
        }
        for (int i = 0; i < 6000 && !std::ifstream(g_signal).good(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    } else if (g_mode == "die" || g_mode == "hold") {
        {
            std::ofstream out(g_file, std::ios::binary);
            out << "holding\n";
        }
        if (g_mode == "hold") {
            std::this_thread::sleep_for(std::chrono::milliseconds(g_count));
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
#if defined(_WIN32)
        std::_Exit(9); // the mutex is abandoned, as when the process is killed
#else
        std::raise(SIGKILL);
#endif
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    g_mode = argv[1];
    g_file = argv[2];
    if (g_mode == "append") {
        if (argc < 5) {
            return 2;
        }
        g_tag = argv[3];
        g_count = std::atoi(argv[4]);
    } else if (g_mode == "hold") {
        if (argc < 4) {
            return 2;
        }
        g_count = std::atoi(argv[3]);
    } else if (g_mode == "until") {
        if (argc < 4) {
            return 2;
        }
        g_signal = argv[3];
    }
    QOB_SetLogFn(&Sink, nullptr);
    QOB_EntryInfo entry;
    const QobErrorCode_e result = QOB_Constructor(&entry, QOB_OBJECT_ENTRY_INFO);
    if (g_mode == "call") {
        std::printf("result %d\n", static_cast<int>(result));
    }
    return result == SUCCESS ? 0 : 1;
}
