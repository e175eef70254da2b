// vtr-cmdserver: the reference host as an HTTP/1.1 server. It loads the
// file_operation plug-in as the player's command server does, answers
// "/file_operation/<sub-command>?<parameters>" with an XML document, relays
// the batch threads' progress lines as Server-Sent Events at "/events" and
// serves a browser console at "/". The wire format is in docs/cmdserver.md.
#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <semaphore>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/cmdserver_wire.h"
#include "host/drives_namespace.h"
#include "host/event_hub.h"
#include "host/plugin_loader.h"
#include "host/sim/xml_tree.h"
#include "host/web_page.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr const char group_name[] = "file_operation";
constexpr std::size_t max_body = 1 << 20;   // form-encoded POST body
constexpr int max_parameters = 256;
constexpr int sse_keepalive_ms = 10000;

struct server_options {
    std::string bind = "127.0.0.1";
    int port = 8080;
    std::string plugin;
    std::string config;
    std::string drives;
    std::string web_dir;
    std::string pipe = cmdserver::framework_pipe;
    int threads = 8;
};

struct server_state {
    host::loaded_plugin plugin;
    cmdserver::event_hub hub;
    bool events_ok = false;
    std::unique_ptr<std::counting_semaphore<1024>> slots;
    // Plug-in calls hold it shared; the sweep of never-appended nodes takes
    // it exclusively, so it only runs while no call is building a tree.
    std::shared_mutex calls;
    std::string web_dir;
};

server_state *g_state = nullptr;  // set once in main before the daemon starts

// What one request is and did; lives from the URI callback to completion.
struct connection_state {
    std::string raw_uri;
    std::string peer;
    clock_type::time_point start = clock_type::now();
    std::string body;
    bool body_started = false;
    bool body_too_large = false;
    std::string method = "-";
    std::string what = "-";   // sub-command or path, for the log line
    std::string result = "-";
    unsigned http_status = 0;
};

// --- logging -------------------------------------------------------------

void log_line(const connection_state &c, const char *method) {
    char stamp[40];
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    tm utc{};
    ::gmtime_r(&ts.tv_sec, &utc);
    std::size_t n = std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(stamp + n, sizeof stamp - n, ".%03ldZ", ts.tv_nsec / 1000000);
    double ms = std::chrono::duration<double, std::milli>(clock_type::now() - c.start).count();
    std::string what = c.what;
    for (char &ch : what)
        if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f) ch = '?';
    char buf[512];
    int len = std::snprintf(buf, sizeof buf, "%s %s %s %.200s result=%s http=%u %.3fms\n", stamp,
                            c.peer.empty() ? "-" : c.peer.c_str(), method, what.c_str(),
                            c.result.c_str(), c.http_status, ms);
    if (len > 0) (void)!::write(STDERR_FILENO, buf, std::min<std::size_t>(len, sizeof buf - 1));
}

// --- answers -------------------------------------------------------------

MHD_Result send_text(MHD_Connection *conn, connection_state &c, unsigned status, std::string body,
                     const char *type) {
    c.http_status = status;
    MHD_Response *r = MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
    if (r == nullptr) return MHD_NO;
    MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    MHD_add_response_header(r, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) MHD_add_response_header(r, MHD_HTTP_HEADER_ALLOW, "GET, HEAD, POST");
    MHD_Result ok = MHD_queue_response(conn, status, r);
    MHD_destroy_response(r);
    return ok;
}

MHD_Result send_error(MHD_Connection *conn, connection_state &c, unsigned status,
                      std::string_view message) {
    c.result = "-";
    return send_text(conn, c, status, cmdserver::error_document(static_cast<int>(status), message),
                     "application/xml; charset=utf-8");
}

void append_tree(std::string &out, const vtrsim::xml_node *n, int depth) {
    if (n->children.empty()) {
        cmdserver::append_leaf(out, n->tag, n->text, depth);
        return;
    }
    cmdserver::append_open(out, n->tag, n->text, depth);
    if (depth < 200)
        for (const vtrsim::xml_node *child : n->children) append_tree(out, child, depth + 1);
    cmdserver::append_close(out, n->tag, depth);
}

std::string answer_document(const cmdserver::call_target &t, const vtrsim::xml_node *response,
                            int32_t result) {
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<answer>\n";
    out += "  <request>\n";
    cmdserver::append_leaf(out, "group", t.group, 2);
    cmdserver::append_leaf(out, "command", t.command, 2);
    for (const std::string &a : t.args) cmdserver::append_leaf(out, "arg", a, 2);
    out += "  </request>\n";
    append_tree(out, response, 1);
    cmdserver::append_leaf(out, "result", std::to_string(result), 1);
    out += "</answer>\n";
    return out;
}

// One plug-in call on this connection's thread; at most --threads at once.
MHD_Result serve_call(MHD_Connection *conn, connection_state &c, cmdserver::call_target &t) {
    server_state &s = *g_state;
    if (t.group != group_name) return send_error(conn, c, MHD_HTTP_NOT_FOUND, "unknown command group \"" + t.group + "\"");
    c.what = t.command;
    if (t.command.empty()) return send_error(conn, c, MHD_HTTP_BAD_REQUEST, "missing sub-command: /file_operation/<sub-command>?<parameters>");
    if (t.args.size() + 1 > static_cast<std::size_t>(max_parameters))
        return send_error(conn, c, MHD_HTTP_BAD_REQUEST, "too many parameters");

    std::vector<std::string> words;
    words.reserve(t.args.size() + 1);
    words.push_back(t.command);
    words.insert(words.end(), t.args.begin(), t.args.end());

    int32_t result;
    std::string doc;
    s.slots->acquire();
    {
        std::shared_lock lock(s.calls);
        vtrsim::xml_node *root = vtrsim::new_root("response");
        if (root == nullptr) {
            s.slots->release();
            return send_error(conn, c, MHD_HTTP_INTERNAL_SERVER_ERROR, "out of memory");
        }
        result = host::run_plugin(s.plugin, words, root);
        doc = answer_document(t, root, result);
        vtrsim::free_tree(root);
    }
    s.slots->release();
    if (std::unique_lock sweep(s.calls, std::try_to_lock); sweep.owns_lock()) {
        if (std::size_t n = vtrsim::free_orphans(); n > 0)
            std::fprintf(stderr, "vtr-cmdserver: freed %zu element(s) the plug-in never appended\n", n);
    }
    c.result = std::to_string(result);
    return send_text(conn, c, MHD_HTTP_OK, std::move(doc), "application/xml; charset=utf-8");
}

// --- Server-Sent Events --------------------------------------------------

struct sse_client {
    uint64_t seq = 0;
    std::string pending;
    std::size_t sent = 0;
};

ssize_t sse_read(void *cls, uint64_t /*pos*/, char *buf, size_t max) noexcept try {
    auto *client = static_cast<sse_client *>(cls);
    if (client->sent >= client->pending.size()) {
        client->pending.clear();
        client->sent = 0;
        if (!g_state->hub.wait_events(client->seq, client->pending, sse_keepalive_ms))
            return MHD_CONTENT_READER_END_OF_STREAM;
        if (client->pending.empty()) client->pending = ": keepalive\n\n";
    }
    std::size_t n = std::min(max, client->pending.size() - client->sent);
    std::memcpy(buf, client->pending.data() + client->sent, n);
    client->sent += n;
    return static_cast<ssize_t>(n);
} catch (...) {
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

void sse_free(void *cls) { delete static_cast<sse_client *>(cls); }

MHD_Result serve_events(MHD_Connection *conn, connection_state &c) {
    c.what = "/events";
    if (!g_state->events_ok)
        return send_error(conn, c, MHD_HTTP_SERVICE_UNAVAILABLE, "the progress pipe could not be opened");
    auto *client = new sse_client;
    client->seq = g_state->hub.next_sequence();
    // A reconnecting EventSource resumes after the last event it saw.
    if (const char *last = MHD_lookup_connection_value(conn, MHD_HEADER_KIND, "Last-Event-ID")) {
        char *end = nullptr;
        unsigned long long id = std::strtoull(last, &end, 10);
        if (end != last && *end == '\0' && id + 1 <= client->seq) client->seq = id + 1;
    }
    client->pending = "retry: 2000\n\n";
    MHD_Response *r = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, 4096, sse_read, client, sse_free);
    if (r == nullptr) {
        delete client;
        return MHD_NO;
    }
    MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, "text/event-stream; charset=utf-8");
    MHD_add_response_header(r, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    c.http_status = MHD_HTTP_OK;
    MHD_Result ok = MHD_queue_response(conn, MHD_HTTP_OK, r);
    MHD_destroy_response(r);
    return ok;
}

// --- the console page ----------------------------------------------------

MHD_Result serve_page(MHD_Connection *conn, connection_state &c) {
    c.what = "/";
    if (!g_state->web_dir.empty()) {
        std::ifstream in(g_state->web_dir + "/index.html", std::ios::binary);
        if (in) {
            std::ostringstream text;
            text << in.rdbuf();
            return send_text(conn, c, MHD_HTTP_OK, text.str(), "text/html; charset=utf-8");
        }
    }
    return send_text(conn, c, MHD_HTTP_OK, std::string(cmdserver::console_page()), "text/html; charset=utf-8");
}

// --- MHD callbacks -------------------------------------------------------

void *on_uri(void * /*cls*/, const char *uri, MHD_Connection *conn) noexcept try {
    auto c = std::make_unique<connection_state>();
    c->raw_uri = uri != nullptr ? uri : "";
    if (const MHD_ConnectionInfo *info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_CLIENT_ADDRESS)) {
        char addr[INET6_ADDRSTRLEN] = "";
        const sockaddr *sa = info->client_addr;
        if (sa != nullptr && sa->sa_family == AF_INET)
            ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(sa)->sin_addr, addr, sizeof addr);
        else if (sa != nullptr && sa->sa_family == AF_INET6)
            ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(sa)->sin6_addr, addr, sizeof addr);
        c->peer = addr;
    }
    return c.release();
} catch (...) {
    return nullptr;
}

void on_completed(void * /*cls*/, MHD_Connection *conn, void **con_cls, MHD_RequestTerminationCode) {
    auto *c = static_cast<connection_state *>(*con_cls);
    if (c == nullptr) return;
    if (c->http_status == 0)
        if (const MHD_ConnectionInfo *info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_HTTP_STATUS))
            c->http_status = info->http_status;
    try {
        log_line(*c, c->method.c_str());
    } catch (...) {
    }
    delete c;
    *con_cls = nullptr;
}

MHD_Result handle_request(MHD_Connection *conn, connection_state *c, const char *method,
                          const char *upload_data, size_t *upload_data_size) {
    c->method = method;
    const bool is_get = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0 ||
                        std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
    const bool is_post = std::strcmp(method, MHD_HTTP_METHOD_POST) == 0;
    if (is_post && !c->body_started) {  // the first call has the headers only
        c->body_started = true;
        return MHD_YES;
    }
    if (is_post && *upload_data_size != 0) {  // gather the form-encoded body
        if (c->body.size() + *upload_data_size > max_body) c->body_too_large = true;
        else c->body.append(upload_data, *upload_data_size);
        *upload_data_size = 0;
        return MHD_YES;
    }

    cmdserver::call_target target;
    cmdserver::target_kind kind;
    std::string error;
    c->what = c->raw_uri.substr(0, c->raw_uri.find('?'));
    if (int status = cmdserver::parse_target(c->raw_uri, target, kind, error); status != 0)
        return send_error(conn, *c, static_cast<unsigned>(status), error);

    if (kind != cmdserver::target_kind::call) {
        const bool page = target.group.empty() || target.group == "index.html";
        if (target.group == group_name)
            return send_error(conn, *c, MHD_HTTP_BAD_REQUEST, "missing sub-command: /file_operation/<sub-command>?<parameters>");
        if (!page && target.group != "events")
            return send_error(conn, *c, MHD_HTTP_NOT_FOUND, "unknown command group \"" + target.group + "\"");
        if (!is_get) return send_error(conn, *c, MHD_HTTP_METHOD_NOT_ALLOWED, "use GET");
        return page ? serve_page(conn, *c) : serve_events(conn, *c);
    }
    if (!is_get && !is_post)
        return send_error(conn, *c, MHD_HTTP_METHOD_NOT_ALLOWED, "use GET, or POST with a form-encoded body");
    if (is_post) {
        if (c->body_too_large) return send_error(conn, *c, MHD_HTTP_CONTENT_TOO_LARGE, "the body is larger than 1 MiB");
        if (!cmdserver::parse_parameters(c->body, target.args, error))
            return send_error(conn, *c, MHD_HTTP_BAD_REQUEST, "body " + error);
    }
    return serve_call(conn, *c, target);
}

// Nothing may escape into the C library: running out of memory closes the
// connection.
MHD_Result on_request(void * /*cls*/, MHD_Connection *conn, const char * /*url*/, const char *method,
                      const char * /*version*/, const char *upload_data, size_t *upload_data_size,
                      void **con_cls) {
    auto *c = static_cast<connection_state *>(*con_cls);
    if (c == nullptr) return MHD_NO;
    try {
        return handle_request(conn, c, method, upload_data, upload_data_size);
    } catch (...) {
        return MHD_NO;
    }
}

// --- start-up --------------------------------------------------------------

void usage(FILE *to) {
    std::fprintf(to,
                 "usage: vtr-cmdserver [--port N] [--bind ADDRESS] [--plugin LIB] [--config FILE]\n"
                 "                     [--drives DIR] [--threads N] [--web DIR] [--pipe PATH]\n"
                 "  --port N        TCP port (default 8080; 0 picks a free one)\n"
                 "  --bind ADDRESS  IPv4 or IPv6 address to listen on (default 127.0.0.1)\n"
                 "  --plugin LIB    the file_operation plug-in (default: next to this program)\n"
                 "  --config FILE   the player's configuration variables (as vtr-host)\n"
                 "  --drives DIR    serve DIR as the drives root, in a private mount namespace\n"
                 "  --threads N     plug-in calls that may run at once (default 8)\n"
                 "  --web DIR       serve the console from DIR/index.html instead of the built-in copy\n"
                 "  --pipe PATH     progress pipe to read (default /tmp/vtr_framework_pipe)\n");
}

bool parse_int(const char *text, int lo, int hi, int &out) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return false;
    out = static_cast<int>(v);
    return true;
}

int parse_options(int argc, char **argv, server_options &o) {
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        auto value = [&](const char *&out) {
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        const char *v = nullptr;
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--port" && value(v)) {
            if (!parse_int(v, 0, 65535, o.port)) return std::fprintf(stderr, "vtr-cmdserver: bad port %s\n", v), 2;
        } else if (a == "--threads" && value(v)) {
            if (!parse_int(v, 1, 1024, o.threads)) return std::fprintf(stderr, "vtr-cmdserver: bad thread count %s\n", v), 2;
        } else if (a == "--bind" && value(v)) {
            o.bind = v;
        } else if (a == "--plugin" && value(v)) {
            o.plugin = v;
        } else if (a == "--config" && value(v)) {
            o.config = v;
        } else if (a == "--drives" && value(v)) {
            o.drives = v;
        } else if (a == "--web" && value(v)) {
            o.web_dir = v;
        } else if (a == "--pipe" && value(v)) {
            o.pipe = v;
        } else {
            std::fprintf(stderr, "vtr-cmdserver: unknown or incomplete option %s\n", argv[i]);
            usage(stderr);
            return 2;
        }
    }
    return -1;
}

std::string absolute(const std::string &path) {
    if (path.empty() || path.front() == '/') return path;
    char *real = ::realpath(path.c_str(), nullptr);
    if (real == nullptr) return path;
    std::string out = real;
    std::free(real);
    return out;
}

std::string default_plugin_path() {
    char self[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "libvantor_command_server_command_file_operation.so";
    self[n] = '\0';
    std::string dir(self);
    dir.erase(dir.rfind('/'));
    // The build tree keeps the plug-in one level up from host/.
    for (const char *rel : {"/", "/../", "/../lib/"}) {
        std::string p = dir + rel + "libvantor_command_server_command_file_operation.so";
        if (::access(p.c_str(), R_OK) == 0) return p;
    }
    return "libvantor_command_server_command_file_operation.so";
}

int signal_pipe[2] = {-1, -1};

void on_signal(int) {
    char b = 1;
    (void)!::write(signal_pipe[1], &b, 1);
}

}  // namespace

int main(int argc, char **argv) {
    server_options opt;
    if (int r = parse_options(argc, argv, opt); r >= 0) return r;

    std::string plugin = absolute(opt.plugin.empty() ? default_plugin_path() : opt.plugin);
    std::string web_dir = absolute(opt.web_dir);
    if (!opt.config.empty()) ::setenv("VTR_CONFIG", absolute(opt.config).c_str(), 1);
    if (!opt.drives.empty()) {
        if (host::enter_drives_namespace(absolute(opt.drives), argv, "vtr-cmdserver", {plugin, web_dir}) != 0) return 1;
    }
    host::enter_work_directory("vtr-cmdserver");

    static server_state state;
    g_state = &state;
    state.web_dir = web_dir;
    state.slots = std::make_unique<std::counting_semaphore<1024>>(opt.threads);
    std::string error;
    if (!host::load_plugin(plugin.c_str(), state.plugin, error)) {
        std::fprintf(stderr, "vtr-cmdserver: cannot load %s: %s\n", plugin.c_str(), error.c_str());
        return 1;
    }
    state.events_ok = state.hub.start(absolute(opt.pipe).c_str(), error);
    if (!state.events_ok) std::fprintf(stderr, "vtr-cmdserver: no progress events: %s\n", error.c_str());

    sockaddr_storage addr{};
    unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL |
                     MHD_USE_ERROR_LOG;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&addr);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&addr);
    if (::inet_pton(AF_INET, opt.bind.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(opt.port));
    } else if (::inet_pton(AF_INET6, opt.bind.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(opt.port));
        flags |= MHD_USE_IPv6;
    } else {
        std::fprintf(stderr, "vtr-cmdserver: --bind wants a numeric IPv4 or IPv6 address, not %s\n", opt.bind.c_str());
        return 2;
    }

    if (::pipe2(signal_pipe, O_CLOEXEC) != 0) return 1;
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    ::sigemptyset(&sa.sa_mask);
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);

    MHD_Daemon *daemon = MHD_start_daemon(
        flags, static_cast<uint16_t>(opt.port), nullptr, nullptr, &on_request, nullptr,
        MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr *>(&addr),
        MHD_OPTION_URI_LOG_CALLBACK, &on_uri, nullptr,
        MHD_OPTION_NOTIFY_COMPLETED, &on_completed, nullptr,
        MHD_OPTION_CONNECTION_TIMEOUT, 60u,
        MHD_OPTION_CONNECTION_LIMIT, 512u,
        MHD_OPTION_LISTEN_BACKLOG_SIZE, 128u,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<size_t>(256 * 1024),
        MHD_OPTION_END);
    if (daemon == nullptr) {
        std::fprintf(stderr, "vtr-cmdserver: cannot listen on %s port %d\n", opt.bind.c_str(), opt.port);
        return 1;
    }
    int port = opt.port;
    if (const MHD_DaemonInfo *info = MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT)) port = info->port;
    const bool v6bind = (flags & MHD_USE_IPv6) != 0;
    std::fprintf(stderr, "vtr-cmdserver: listening on http://%s%s%s:%d/ (plug-in %s, %d worker slots)\n",
                 v6bind ? "[" : "", opt.bind.c_str(), v6bind ? "]" : "", port, plugin.c_str(), opt.threads);

    char b;
    while (::read(signal_pipe[0], &b, 1) < 0 && errno == EINTR) {
    }
    std::fprintf(stderr, "vtr-cmdserver: stopping\n");
    // A handler that blocks (a rip, a download) would hold the shutdown.
    std::thread([] {
        std::this_thread::sleep_for(std::chrono::seconds(3));
        std::fprintf(stderr, "vtr-cmdserver: requests still running, leaving anyway\n");
        std::_Exit(0);
    }).detach();
    state.hub.stop();
    MHD_stop_daemon(daemon);
    return 0;
}
