// Shared pieces of the transfer tests: a reader of the framework pipe,
// requests built from words, and small file helpers. The tests use the fixed
// paths under /tmp and run inside the test sandbox.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/host_api.h"

namespace test_support {

// Sets (or with an empty value removes) a configuration variable of the
// stand-in host.
void set_var(const std::string &name, const std::string &value);

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline bool exists(const std::string &path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

// A sparse file of the given size.
inline void make_sparse(const std::string &path, long long size) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    (void)::ftruncate(fd, size);
    ::close(fd);
}

// Reads event lines from the framework pipe on its own thread, as the
// player's user interface does.
class event_pipe {
public:
    static constexpr const char *path = "/tmp/vtr_framework_pipe";
    event_pipe() {
        ::unlink(path);
        ::mkfifo(path, 0600);
        read_fd_ = ::open(path, O_RDONLY | O_NONBLOCK);
        keep_fd_ = ::open(path, O_WRONLY | O_NONBLOCK);  // no end of file between writers
        reader_ = std::thread([this] { run(); });
    }
    ~event_pipe() {
        stop_ = true;
        reader_.join();
        ::close(keep_fd_);
        ::close(read_fd_);
        ::unlink(path);
    }
    std::vector<std::string> lines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    // Waits until a line holds `marker` (the end event: "<whole>101</whole>").
    std::vector<std::string> wait_for(const std::string &marker, int seconds = 30) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < deadline) {
            {
                std::lock_guard lock(mutex_);
                for (const auto &l : lines_)
                    if (l.find(marker) != std::string::npos) return lines_;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return lines();
    }

private:
    void run() {
        std::string partial;
        while (!stop_) {
            pollfd p{read_fd_, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            char buffer[65536];
            ssize_t n = ::read(read_fd_, buffer, sizeof buffer);
            if (n <= 0) continue;
            partial.append(buffer, static_cast<std::size_t>(n));
            std::size_t at;
            while ((at = partial.find('\n')) != std::string::npos) {
                std::lock_guard lock(mutex_);
                lines_.push_back(partial.substr(0, at + 1));
                partial.erase(0, at + 1);
            }
        }
    }
    int read_fd_ = -1;
    int keep_fd_ = -1;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<std::string> lines_;
    std::thread reader_;
};

// A request holding the given words (argv[0] the sub-command).
struct request {
    std::vector<std::string> words;
    std::vector<std::byte> block;
    CommandRequest value{};
    explicit request(std::vector<std::string> w) : words(std::move(w)) {
        block.resize(sizeof(CommandArgs) + sizeof(char *) * (words.size() + 1));
        auto *args = reinterpret_cast<CommandArgs *>(block.data());
        args->argc = static_cast<int32_t>(words.size());
        for (std::size_t i = 0; i < words.size(); ++i) args->argv[i] = words[i].data();
        value.args = args;
    }
};

}  // namespace test_support
