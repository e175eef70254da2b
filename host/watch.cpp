#include "host/watch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/io.h"

namespace host {
namespace {

constexpr const char default_pipe[] = "/tmp/vtr_framework_pipe";

// The text between <tag> and </tag>, if both are there.
bool field(std::string_view line, std::string_view tag, std::string &out) {
    std::string open = "<" + std::string(tag) + ">";
    std::string close = "</" + std::string(tag) + ">";
    std::size_t a = line.find(open);
    if (a == std::string_view::npos) return false;
    a += open.size();
    std::size_t b = line.find(close, a);
    if (b == std::string_view::npos) return false;
    out.assign(line.substr(a, b - a));
    return true;
}

bool number(std::string_view line, std::string_view tag, int &out) {
    std::string text;
    if (!field(line, tag, text)) return false;
    out = std::atoi(text.c_str());
    return true;
}

std::string bar(int percent, int width) {
    if (percent < 0) percent = 0;
    if (percent > 100) percent = 100;
    int filled = percent * width / 100;
    return "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(width - filled), '-') + "]";
}

const char *status_text(int status) {
    switch (status) {
    case 0: return "ok";
    case 4: return "failed";
    case 11: return "source and target coincide, target exists or path too long";
    case 12: return "source missing";
    case 22: return "not enough free space";
    case 27: return "cannot open source or target";
    case 29: return "write failed";
    case 30: return "cannot reopen source";
    case 60: return "destination not writable";
    default: return "error";
    }
}

std::string format(const char *fmt, auto... args) {
    char buf[1024];
    int n = std::snprintf(buf, sizeof buf, fmt, args...);
    if (n < 0) return {};
    return std::string(buf, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof buf - 1));
}

}  // namespace

bool parse_progress_line(std::string_view line, progress_event &out) {
    if (line.substr(0, 4) != "swf=") return false;
    out = progress_event{};
    if (!field(line, "event", out.event)) return false;
    field(line, "filename", out.filename);
    field(line, "from", out.from);
    field(line, "to", out.to);
    number(line, "item", out.item);
    number(line, "total", out.total);
    out.has_percent = number(line, "percent", out.percent);
    number(line, "whole", out.whole);
    number(line, "time_left", out.time_left);
    number(line, "status", out.status);
    return true;
}

std::string render_progress(const progress_event &e, int width) {
    if (e.whole == 101)
        return format("%s: finished %d item(s), status %d (%s)", e.event.c_str(), e.total, e.status,
                      status_text(e.status));
    std::string where = e.from;
    if (!e.to.empty()) where += (where.empty() ? "" : " ") + std::string("-> ") + e.to;
    std::string line = format("%s %d/%d %s", e.event.c_str(), e.item, e.total,
                              e.filename.empty() ? "(start)" : e.filename.c_str());
    if (!where.empty()) line += " (" + where + ")";
    if (e.has_percent) line += format(" %s %3d%%", bar(e.percent, width).c_str(), e.percent);
    line += format(" all %s %3d%%", bar(e.whole, width).c_str(), e.whole);
    if (e.time_left > 0) line += format(" %ds left", e.time_left);
    if (e.status != 0) line += format(" status %d (%s)", e.status, status_text(e.status));
    return line;
}

int run_watch(int argc, char **argv) {
    const char *path = default_pipe;
    bool until_end = false, raw = false;
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a == "--pipe" && i + 1 < argc) path = argv[++i];
        else if (a == "--until-end") until_end = true;
        else if (a == "--raw") raw = true;
        else {
            std::fprintf(stderr, "usage: vtr-host watch [--pipe PATH] [--until-end] [--raw]\n");
            return 2;
        }
    }
    struct stat st {};
    if (::stat(path, &st) != 0 && ::mkfifo(path, 0666) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "vtr-host watch: mkfifo %s: %s\n", path, std::strerror(errno));
        return 1;
    }
    // Read and write, so the pipe stays open between batches.
    int fd = ::open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "vtr-host watch: open %s: %s\n", path, std::strerror(errno));
        return 1;
    }
    const bool tty = ::isatty(STDOUT_FILENO) != 0;
    std::string pending;
    char buf[4096];
    bool open_line = false;  // a redrawn line is on the terminal
    for (;;) {
        ssize_t n = base::retry_eintr([&] { return ::read(fd, buf, sizeof buf); });
        if (n <= 0) break;
        pending.append(buf, static_cast<std::size_t>(n));
        std::size_t start = 0;
        for (std::size_t nl; (nl = pending.find('\n', start)) != std::string::npos; start = nl + 1) {
            std::string_view line(pending.data() + start, nl - start);
            progress_event e;
            bool parsed = parse_progress_line(line, e);
            if (raw || !parsed) {
                std::printf("%s%.*s\n", open_line ? "\n" : "", static_cast<int>(line.size()), line.data());
                open_line = false;
            } else {
                std::string text = render_progress(e, 20);
                bool keep = !tty || e.whole == 101 || e.status != 0;
                if (tty) std::printf("\r\033[K%s%s", text.c_str(), keep ? "\n" : "");
                else std::printf("%s\n", text.c_str());
                open_line = tty && !keep;
            }
            std::fflush(stdout);
            if (until_end && parsed && e.whole == 101) {
                ::close(fd);
                return e.status == 0 ? 0 : 1;
            }
        }
        pending.erase(0, start);
    }
    ::close(fd);
    return 0;
}

}  // namespace host
