// Progress events of the batch threads: a reader thread holds the framework
// pipe open for reading and keeps the latest lines in a ring; every
// Server-Sent-Events client reads from the ring at its own pace, so a slow
// client never holds up the reader (it loses the oldest lines instead).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace cmdserver {

inline constexpr const char framework_pipe[] = "/tmp/vtr_framework_pipe";

class event_hub {
public:
    event_hub() = default;
    event_hub(const event_hub &) = delete;
    event_hub &operator=(const event_hub &) = delete;
    ~event_hub() { stop(); }

    // Creates the FIFO when absent and starts the reader thread. False (and
    // the reason) when the path exists but is no FIFO or cannot be opened.
    bool start(const char *path, std::string &error);
    void stop() noexcept;

    // Sequence number the next line will get; a new client starts here.
    uint64_t next_sequence() const;

    // Waits up to timeout_ms for lines from sequence seq on, then appends
    // them to out as SSE events and advances seq. Returns false once the hub
    // has stopped. Lines a client fell too far behind for are skipped.
    bool wait_events(uint64_t &seq, std::string &out, int timeout_ms);

    // For tests and the console: feed a line as if read from the pipe.
    void publish(std::string line);

private:
    void reader_loop();

    static constexpr std::size_t ring_size = 512;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> ring_;
    uint64_t first_seq_ = 0;  // sequence number of ring_.front()
    bool stopping_ = false;
    std::string path_;
    int fifo_fd_ = -1;
    int wake_fds_[2] = {-1, -1};
    std::thread reader_;
};

}  // namespace cmdserver
