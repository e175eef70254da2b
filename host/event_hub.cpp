#include "host/event_hub.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "base/io.h"

namespace cmdserver {

namespace {

// Creates the FIFO when absent and opens it for reading and writing: the
// open does not wait for a writer, and the pipe never reports end of file
// when a batch thread closes its end.
int open_fifo(const char *path, std::string &error) {
    struct stat st {};
    if (::stat(path, &st) != 0) {
        if (::mkfifo(path, 0666) != 0 && errno != EEXIST) {
            error = std::string("mkfifo ") + path + ": " + std::strerror(errno);
            return -1;
        }
    } else if (!S_ISFIFO(st.st_mode)) {
        error = std::string(path) + " exists and is not a FIFO";
        return -1;
    }
    int fd = ::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) error = std::string("open ") + path + ": " + std::strerror(errno);
    return fd;
}

// True while path still names the FIFO open on fd.
bool same_fifo(const char *path, int fd) {
    struct stat by_path {}, by_fd {};
    return ::stat(path, &by_path) == 0 && ::fstat(fd, &by_fd) == 0 && by_path.st_dev == by_fd.st_dev &&
           by_path.st_ino == by_fd.st_ino;
}

}  // namespace

bool event_hub::start(const char *path, std::string &error) {
    path_ = path;
    fifo_fd_ = open_fifo(path, error);
    if (fifo_fd_ < 0) return false;
    if (::pipe2(wake_fds_, O_CLOEXEC) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        ::close(std::exchange(fifo_fd_, -1));
        return false;
    }
    reader_ = std::thread([this] { reader_loop(); });
    return true;
}

void event_hub::stop() noexcept {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    changed_.notify_all();
    if (wake_fds_[1] >= 0) {
        char b = 0;
        (void)!::write(wake_fds_[1], &b, 1);
    }
    if (reader_.joinable()) reader_.join();
    for (int &fd : wake_fds_)
        if (fd >= 0) ::close(std::exchange(fd, -1));
    if (fifo_fd_ >= 0) ::close(std::exchange(fifo_fd_, -1));
}

uint64_t event_hub::next_sequence() const {
    std::lock_guard lock(mutex_);
    return first_seq_ + ring_.size();
}

void event_hub::publish(std::string line) {
    {
        std::lock_guard lock(mutex_);
        ring_.push_back(std::move(line));
        if (ring_.size() > ring_size) {
            ring_.pop_front();
            ++first_seq_;
        }
    }
    changed_.notify_all();
}

bool event_hub::wait_events(uint64_t &seq, std::string &out, int timeout_ms) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                      [&] { return stopping_ || seq < first_seq_ + ring_.size(); });
    if (stopping_) return false;
    if (seq < first_seq_) {
        out += ": " + std::to_string(first_seq_ - seq) + " events dropped\n\n";
        seq = first_seq_;
    }
    for (; seq < first_seq_ + ring_.size(); ++seq) {
        out += "id: " + std::to_string(seq) + "\ndata: ";
        // A carriage return would end the field: continue on a new data
        // line, which the client joins with a line feed.
        for (char c : ring_[seq - first_seq_]) {
            if (c == '\r') out += "\ndata: ";
            else out += c;
        }
        out += "\n\n";
    }
    return true;
}

void event_hub::reader_loop() {
    std::string partial;
    char buf[4096];
    constexpr std::size_t max_line = 16384;
    for (;;) {
        pollfd fds[2] = {{fifo_fd_, POLLIN, 0}, {wake_fds_[0], POLLIN, 0}};
        int n = base::retry_eintr([&] { return ::poll(fds, 2, 1000); });
        if (n < 0) return;
        if (fds[1].revents != 0) return;
        if (n == 0) {
            // Someone removed or replaced the pipe (a clean-up of /tmp):
            // make it again, or the batch threads' events would be lost.
            if (!same_fifo(path_.c_str(), fifo_fd_)) {
                std::string error;
                if (int fd = open_fifo(path_.c_str(), error); fd >= 0) {
                    ::close(fifo_fd_);
                    fifo_fd_ = fd;
                    partial.clear();
                }
            }
            continue;
        }
        if ((fds[0].revents & POLLIN) == 0) continue;
        ssize_t got = ::read(fifo_fd_, buf, sizeof buf);
        if (got <= 0) continue;
        partial.append(buf, static_cast<std::size_t>(got));
        std::size_t start = 0;
        for (std::size_t nl; (nl = partial.find('\n', start)) != std::string::npos; start = nl + 1) {
            std::string line = partial.substr(start, nl - start);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (!line.empty()) publish(std::move(line));
        }
        partial.erase(0, start);
        if (partial.size() > max_line) {  // no line feed in sight: pass it on in pieces
            publish(std::move(partial));
            partial.clear();
        }
    }
}

}  // namespace cmdserver
