#include "tests/harness/clamd_client.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct File {
    std::string path;
    std::string content;
};

/// What each client is to do.
struct Load {
    ClamdClient client;
    bool streams;
    std::vector<File> files;
    std::atomic<std::size_t> next = 0;
    std::atomic<std::size_t> bad = 0;
};

std::vector<File> readFiles(const char* list) {
    std::vector<File> files;
    std::ifstream names(list);
    for (std::string path; std::getline(names, path);) {
        std::ifstream file(path, std::ios::binary);
        files.push_back({path, {std::istreambuf_iterator<char>(file), {}}});
    }
    return files;
}

/// Asks about one file after the other until all are through.
void ask(Load& load, std::size_t most, std::vector<double>& milliseconds) {
    for (std::size_t i = load.next++; i < most; i = load.next++) {
        const File& file = load.files[i % load.files.size()];
        const auto begun = Clock::now();
        std::string answer;
        if (load.streams) {
            answer = load.client.stream(file.content);
        } else {
            const int fd = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
            answer = load.client.descriptor(fd);
            ::close(fd);
        }
        if (!answer.ends_with(": OK")) ++load.bad;
        milliseconds.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begun).count());
    }
}

}  // namespace

/// Has files scanned by several clients at a time: scanner_load SOCKET stream|descriptor CLIENTS FILES LIST. FILES: how
/// many scans in all; LIST: a file of paths. Prints files per second, the median and the 99th percentile of the time
/// for one, in milliseconds, and how many were not answered OK.
int main(int argc, char** argv) {
    if (argc != 6) return EXIT_FAILURE;
    Load load{ClamdClient(argv[1]), std::string_view(argv[2]) == "stream", readFiles(argv[5])};
    const auto clients = static_cast<std::size_t>(std::atoi(argv[3]));
    const auto most = static_cast<std::size_t>(std::atoi(argv[4]));
    if (load.files.empty()) return EXIT_FAILURE;
    std::vector<std::vector<double>> times(clients);
    const auto begun = Clock::now();
    {
        std::vector<std::jthread> threads;
        for (std::vector<double>& own : times) threads.emplace_back([&] { ask(load, most, own); });
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begun).count();
    std::vector<double> all;
    for (const std::vector<double>& own : times) all.insert(all.end(), own.begin(), own.end());
    std::sort(all.begin(), all.end());
    std::printf("%8.0f files/s   median %7.2f ms   p99 %8.2f ms   not OK %zu\n",
                static_cast<double>(all.size()) / seconds, all[all.size() / 2], all[all.size() * 99 / 100],
                load.bad.load());
    return EXIT_SUCCESS;
}
