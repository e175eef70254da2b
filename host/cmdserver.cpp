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

#include <sys/random.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
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
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/io.h"
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
// Limits that keep one client from holding the server (docs/cmdserver.md).
constexpr unsigned idle_timeout_s = 10;       // request headers, bodies, keep-alive
constexpr unsigned events_timeout_s = 60;     // an event client that reads nothing
constexpr unsigned max_connections = 512;
constexpr unsigned max_per_address = 32;
constexpr int max_event_clients = 16;
constexpr std::size_t max_read_content = 16u << 20;  // bytes of file content per answer
constexpr const char request_header[] = "X-Vtr-Request";

// Sub-commands that only read: a request without the custom header may run
// them. Every other name changes something and needs the header.
constexpr std::string_view read_commands[] = {
    "list_user_storage_file", "search_user_storage_file", "read_user_storage_file",
    "get_user_storage_file_info", "search_user_storage_subtitle", "calculate_user_storage_file_hash",
    "verify_user_storage_download_status", "get_user_storage_file_index", "read_app_storage_file",
    "get_app_storage_file_info",
};

// Sub-commands that can run long; they never take the slots kept for the
// others. Any name holding "ripping" is long too, except StopRipping.
constexpr std::string_view long_commands[] = {
    "search_user_storage_file", "get_user_storage_file_index", "copy_user_storage_file",
    "move_user_storage_file", "backup_user_storage_file", "copy_user_storage_file_from_list",
    "move_user_storage_file_from_list", "delete_user_storage_file_from_list", "search_user_storage_subtitle",
    "calculate_user_storage_file_hash", "download_user_storage_file", "copy_app_storage_file",
};

// The reads whose answer carries file content, and the word holding their
// byte count (0: the whole file).
struct content_read {
    std::string_view command;
    std::size_t count_word;
};
constexpr content_read content_reads[] = {{"read_user_storage_file", 3}, {"read_app_storage_file", 6}};

struct server_options {
    std::string bind = "127.0.0.1";
    int port = 8080;
    std::string plugin;
    std::string config;
    std::string drives;
    std::string web_dir;
    std::string pipe = cmdserver::framework_pipe;
    int threads = 8;
    std::vector<std::string> allowed_hosts;
};

struct server_state {
    host::loaded_plugin plugin;
    cmdserver::event_hub hub;
    bool events_ok = false;
    std::unique_ptr<std::counting_semaphore<1024>> slots;
    std::unique_ptr<std::counting_semaphore<1024>> long_slots;  // fewer than slots
    std::atomic<int> event_clients{0};
    // Host header values accepted besides localhost and the bound address.
    std::vector<std::string> allowed_hosts;
    std::string bind;
    bool bind_any = false;  // 0.0.0.0 or ::: every address literal names the server
    // Plug-in calls hold it shared; the sweep of never-appended nodes takes
    // it exclusively, so it only runs while no call is building a tree.
    std::shared_mutex calls;
    std::string web_dir;
};

server_state *g_state = nullptr;  // set once in main before the daemon starts

// What one request is and did; lives from the URI callback to completion.
struct connection_state {
    std::string raw_uri;
    const char *uri_start = nullptr;  // where the target began in the request line
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

constexpr const char xml_type[] = "application/xml; charset=utf-8";
// Nothing but the console page may run scripts, load anything or be framed.
constexpr const char data_policy[] = "default-src 'none'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'";

// Queues r with the headers every answer carries.
MHD_Result queue(MHD_Connection *conn, connection_state &c, unsigned status, MHD_Response *r, const char *type,
                 const char *policy = data_policy, const char *allow = nullptr) {
    c.http_status = status;
    MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    MHD_add_response_header(r, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    MHD_add_response_header(r, "Content-Security-Policy", policy);
    MHD_add_response_header(r, "X-Frame-Options", "DENY");
    MHD_add_response_header(r, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(r, "Cross-Origin-Resource-Policy", "same-origin");
    if (allow != nullptr) MHD_add_response_header(r, MHD_HTTP_HEADER_ALLOW, allow);
    MHD_Result ok = MHD_queue_response(conn, status, r);
    MHD_destroy_response(r);
    return ok;
}

MHD_Result send_text(MHD_Connection *conn, connection_state &c, unsigned status, const std::string &body,
                     const char *type, const char *policy = data_policy, const char *allow = nullptr) {
    MHD_Response *r = MHD_create_response_from_buffer(body.size(), const_cast<char *>(body.data()),
                                                      MHD_RESPMEM_MUST_COPY);
    if (r == nullptr) return MHD_NO;
    return queue(conn, c, status, r, type, policy, allow);
}

MHD_Result send_error(MHD_Connection *conn, connection_state &c, unsigned status, std::string_view message,
                      const char *allow = nullptr) {
    c.result = "-";
    return send_text(conn, c, status, cmdserver::error_document(static_cast<int>(status), message), xml_type,
                     data_policy, allow);
}

// --- who may ask what ------------------------------------------------------

// Equal but for the case of ASCII letters.
bool same_text_nocase(std::string_view a, std::string_view b) {
    auto lower = [](char ch) { return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + 32) : ch; };
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
}

// True when a Host header value names this server: localhost, the bound
// address (any address literal when bound to all addresses) or a name given
// with --allow-host, with or without a port. A page whose own name was
// pointed at this server (DNS rebinding) sends its own name and is refused.
bool host_allowed(std::string_view host) {
    const server_state &s = *g_state;
    std::string_view name = host, port;
    if (!host.empty() && host.front() == '[') {
        std::size_t end = host.find(']');
        if (end == std::string_view::npos) return false;
        name = host.substr(1, end - 1);
        port = host.substr(end + 1);
        if (!port.empty() && port.front() != ':') return false;
    } else if (std::size_t colon = host.find(':'); colon != std::string_view::npos) {
        name = host.substr(0, colon);
        port = host.substr(colon);
    }
    if (!port.empty()) {
        port.remove_prefix(1);
        if (port.empty() || port.size() > 5 || !std::all_of(port.begin(), port.end(), [](char d) { return d >= '0' && d <= '9'; }))
            return false;
    }
    if (name.empty()) return false;
    if (same_text_nocase(name, "localhost")) return true;
    for (const std::string &allowed : s.allowed_hosts)
        if (same_text_nocase(name, allowed)) return true;
    std::string text(name);
    unsigned char bin[sizeof(in6_addr)], bound[sizeof(in6_addr)];
    for (int family : {AF_INET, AF_INET6}) {
        if (::inet_pton(family, text.c_str(), bin) != 1) continue;
        if (s.bind_any) return true;
        return ::inet_pton(family, s.bind.c_str(), bound) == 1 &&
               std::memcmp(bin, bound, family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr)) == 0;
    }
    return false;
}

bool listed(std::span<const std::string_view> names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool is_long_command(const cmdserver::call_target &t) {
    if (listed(long_commands, t.command)) return true;
    return t.command.find("ripping") != std::string::npos && !(t.args.size() == 1 && t.args[0] == "StopRipping");
}

// Refuses (with the answer sent) what a page of another site could make a
// browser send. Returns false when the request may go on.
bool refused_host(MHD_Connection *conn, connection_state &c, MHD_Result &answer) {
    const char *host = MHD_lookup_connection_value(conn, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST);
    if (host == nullptr || host_allowed(host)) return false;
    answer = send_error(conn, c, MHD_HTTP_FORBIDDEN,
                        std::string("the Host \"") + host + "\" does not name this server (see --allow-host)");
    return true;
}

bool refused_origin(MHD_Connection *conn, connection_state &c, MHD_Result &answer) {
    const char *host = MHD_lookup_connection_value(conn, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST);
    // A page of another origin: its Origin differs from the address it asked.
    if (const char *origin = MHD_lookup_connection_value(conn, MHD_HEADER_KIND, MHD_HTTP_HEADER_ORIGIN)) {
        if (host == nullptr || !same_text_nocase(origin, std::string("http://") + host)) {
            answer = send_error(conn, c, MHD_HTTP_FORBIDDEN, std::string("requests from ") + origin + " are not served");
            return true;
        }
    }
    if (const char *site = MHD_lookup_connection_value(conn, MHD_HEADER_KIND, "Sec-Fetch-Site")) {
        if (std::strcmp(site, "same-origin") != 0 && std::strcmp(site, "none") != 0) {
            answer = send_error(conn, c, MHD_HTTP_FORBIDDEN, std::string("requests from a ") + site + " page are not served");
            return true;
        }
    }
    return false;
}

// An answer on its way to the client: the plug-in's tree and the request
// stay alive until the document that refers to them has been sent.
struct answer_stream {
    cmdserver::call_target target;
    vtrsim::xml_node *root = nullptr;
    std::string result;
    cmdserver::document doc;
    ~answer_stream() {
        if (root != nullptr) vtrsim::free_tree(root);
    }
};

void add_tree(cmdserver::document &doc, const vtrsim::xml_node *n, int depth) {
    if (n->children.empty()) {
        doc.leaf(n->tag, n->text, depth);
        return;
    }
    doc.open(n->tag, n->text, depth);
    if (depth < 200)
        for (const vtrsim::xml_node *child : n->children) add_tree(doc, child, depth + 1);
    doc.close(n->tag, depth);
}

void build_answer(answer_stream &a, int32_t result) {
    a.result = std::to_string(result);
    cmdserver::document &d = a.doc;
    d.markup("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<answer>\n  <request>\n");
    d.leaf("group", a.target.group, 2);
    d.leaf("command", a.target.command, 2);
    for (const std::string &arg : a.target.args) d.leaf("arg", arg, 2);
    d.markup("  </request>\n");
    add_tree(d, a.root, 1);
    d.leaf("result", a.result, 1);
    d.markup("</answer>\n");
}

ssize_t answer_read(void *cls, uint64_t /*pos*/, char *buf, size_t max) noexcept try {
    std::size_t n = static_cast<answer_stream *>(cls)->doc.read(buf, max);
    return n > 0 ? static_cast<ssize_t>(n) : MHD_CONTENT_READER_END_WITH_ERROR;
} catch (...) {
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

void answer_free(void *cls) { delete static_cast<answer_stream *>(cls); }

// The largest text of any element of the tree.
std::size_t largest_text(const vtrsim::xml_node *n) {
    std::size_t most = n->text.size();
    for (const vtrsim::xml_node *child : n->children) most = std::max(most, largest_text(child));
    return most;
}

// One plug-in call on this connection's thread; at most --threads at once,
// long ones on fewer slots.
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
    // A read of the whole file, or of more than the cap, asks the plug-in
    // for one byte over the cap: the answer then shows the file is too large
    // without the plug-in reading all of it.
    bool content_read = false;
    for (const auto &[command, word] : content_reads) {
        if (t.command != command || words.size() <= word) continue;
        content_read = true;
        auto count = static_cast<uint32_t>(std::atoi(words[word].c_str()));
        if (count == 0 || count > max_read_content) words[word] = std::to_string(max_read_content + 1);
    }

    auto answer = std::make_unique<answer_stream>();
    int32_t result = 0;
    const bool is_long = is_long_command(t);
    if (is_long) s.long_slots->acquire();
    s.slots->acquire();
    {
        std::shared_lock lock(s.calls);
        answer->root = vtrsim::new_root("response");
        if (answer->root != nullptr) result = host::run_plugin(s.plugin, words, answer->root);
    }
    s.slots->release();
    if (is_long) s.long_slots->release();
    if (answer->root == nullptr) return send_error(conn, c, MHD_HTTP_INTERNAL_SERVER_ERROR, "out of memory");
    if (std::unique_lock sweep(s.calls, std::try_to_lock); sweep.owns_lock()) {
        if (std::size_t n = vtrsim::free_orphans(); n > 0)
            std::fprintf(stderr, "vtr-cmdserver: freed %zu element(s) the plug-in never appended\n", n);
    }
    c.result = std::to_string(result);
    if (content_read && largest_text(answer->root) > max_read_content)
        return send_error(conn, c, MHD_HTTP_CONTENT_TOO_LARGE,
                          "the content is larger than " + std::to_string(max_read_content >> 20) +
                              " MiB: read it in pieces (offset and count)");
    answer->target = std::move(t);
    build_answer(*answer, result);
    MHD_Response *r = MHD_create_response_from_callback(answer->doc.size(), 64 * 1024, answer_read, answer.get(),
                                                        answer_free);
    if (r == nullptr) return MHD_NO;
    answer.release();
    return queue(conn, c, MHD_HTTP_OK, r, xml_type);
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

void sse_free(void *cls) {
    delete static_cast<sse_client *>(cls);
    --g_state->event_clients;
}

// The sequence number a client starts at after sending Last-Event-ID: the
// line after the one named, when the text is decimal digits only (no sign,
// no blank, within 64 bits) naming a line already relayed; else next, the
// line still to come.
uint64_t resume_sequence(const char *last_id, uint64_t next) {
    uint64_t id = 0;
    const char *end = last_id + std::strlen(last_id);
    auto [stop, ec] = std::from_chars(last_id, end, id);
    return ec == std::errc() && stop == end && id < next ? id + 1 : next;
}

MHD_Result serve_events(MHD_Connection *conn, connection_state &c) {
    c.what = "/events";
    if (!g_state->events_ok)
        return send_error(conn, c, MHD_HTTP_SERVICE_UNAVAILABLE, "the progress pipe could not be opened");
    if (++g_state->event_clients > max_event_clients) {
        --g_state->event_clients;
        return send_error(conn, c, MHD_HTTP_SERVICE_UNAVAILABLE,
                          "too many event clients (" + std::to_string(max_event_clients) + ")");
    }
    auto *client = new sse_client;
    client->seq = g_state->hub.next_sequence();
    // A reconnecting EventSource resumes after the last event it saw.
    if (const char *last = MHD_lookup_connection_value(conn, MHD_HEADER_KIND, "Last-Event-ID"))
        client->seq = resume_sequence(last, client->seq);
    client->pending = "retry: 2000\n\n";
    MHD_Response *r = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, 4096, sse_read, client, sse_free);
    if (r == nullptr) {
        sse_free(client);
        return MHD_NO;
    }
    MHD_set_connection_option(conn, MHD_CONNECTION_OPTION_TIMEOUT, events_timeout_s);
    return queue(conn, c, MHD_HTTP_OK, r, "text/event-stream; charset=utf-8");
}

// --- the console page ----------------------------------------------------

// The page's scripts run only with the nonce of this answer: a script that
// a file name smuggled into the page would not.
MHD_Result serve_page(MHD_Connection *conn, connection_state &c) {
    c.what = "/";
    std::string page(cmdserver::console_page());
    if (!g_state->web_dir.empty()) {
        std::ifstream in(g_state->web_dir + "/index.html", std::ios::binary);
        if (in) {
            std::ostringstream text;
            text << in.rdbuf();
            page = text.str();
        }
    }
    unsigned char random[16];
    if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random))
        return send_error(conn, c, MHD_HTTP_INTERNAL_SERVER_ERROR, "no random bytes for the page's nonce");
    std::string nonce;
    cmdserver::append_base64(nonce, std::string_view(reinterpret_cast<const char *>(random), sizeof random));
    const std::string tag = "<script nonce=\"" + nonce + "\">";
    for (std::size_t at = 0; (at = page.find("<script>", at)) != std::string::npos; at += tag.size())
        page.replace(at, 8, tag);
    const std::string policy = "default-src 'none'; script-src 'nonce-" + nonce +
                               "'; style-src 'unsafe-inline'; img-src data:; connect-src 'self'; "
                               "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
    return send_text(conn, c, MHD_HTTP_OK, page, "text/html; charset=utf-8", policy.c_str());
}

// --- MHD callbacks -------------------------------------------------------

void *on_uri(void * /*cls*/, const char *uri, MHD_Connection *conn) noexcept try {
    auto c = std::make_unique<connection_state>();
    c->raw_uri = uri != nullptr ? uri : "";
    c->uri_start = uri;
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

// libmicrohttpd hands the request target over as a C string, cut at a NUL
// byte the client sent inside it. In the request line the target runs up to
// the blank before the HTTP version, whose text the library also hands over
// in place: a target shorter than that span held a NUL.
bool target_holds_nul(const connection_state &c, const char *version) {
    if (c.uri_start == nullptr || version == nullptr || *version == '\0') return false;
    auto start = reinterpret_cast<std::uintptr_t>(c.uri_start), end = reinterpret_cast<std::uintptr_t>(version);
    return end > start && end - start - 1 > c.raw_uri.size() && end - start < (1u << 20);
}

MHD_Result handle_request(MHD_Connection *conn, connection_state *c, const char *method, const char *version,
                          const char *upload_data, size_t *upload_data_size) {
    c->method = method;
    const bool is_get = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0;
    const bool is_head = std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
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
    MHD_Result refused;
    c->what = c->raw_uri.substr(0, c->raw_uri.find('?'));
    if (refused_host(conn, *c, refused)) return refused;
    if (target_holds_nul(*c, version)) return send_error(conn, *c, MHD_HTTP_BAD_REQUEST, "NUL byte in the request target");
    if (int status = cmdserver::parse_target(c->raw_uri, target, kind, error); status != 0)
        return send_error(conn, *c, static_cast<unsigned>(status), error);

    if (kind != cmdserver::target_kind::call) {
        const bool page = target.group.empty() || target.group == "index.html";
        if (target.group == group_name)
            return send_error(conn, *c, MHD_HTTP_BAD_REQUEST, "missing sub-command: /file_operation/<sub-command>?<parameters>");
        if (!page && target.group != "events")
            return send_error(conn, *c, MHD_HTTP_NOT_FOUND, "unknown command group \"" + target.group + "\"");
        if (page) {
            if (!is_get && !is_head) return send_error(conn, *c, MHD_HTTP_METHOD_NOT_ALLOWED, "use GET", "GET, HEAD");
            return serve_page(conn, *c);
        }
        if (!is_get) return send_error(conn, *c, MHD_HTTP_METHOD_NOT_ALLOWED, "use GET", "GET");
        if (refused_origin(conn, *c, refused)) return refused;
        return serve_events(conn, *c);
    }
    if (!is_get && !is_post)
        return send_error(conn, *c, MHD_HTTP_METHOD_NOT_ALLOWED, "use GET, or POST with a form-encoded body",
                          "GET, POST");
    if (refused_origin(conn, *c, refused)) return refused;
    // A page of another site can make a browser send a plain GET or a form
    // POST, never a request with a header of its own choosing.
    if (target.group == group_name && !target.command.empty() && !listed(read_commands, target.command) &&
        MHD_lookup_connection_value(conn, MHD_HEADER_KIND, request_header) == nullptr) {
        c->what = target.command;
        return send_error(conn, *c, MHD_HTTP_FORBIDDEN,
                          "\"" + target.command + "\" changes files: send the header " + request_header + ": 1");
    }
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
                      const char *version, const char *upload_data, size_t *upload_data_size,
                      void **con_cls) {
    auto *c = static_cast<connection_state *>(*con_cls);
    if (c == nullptr) return MHD_NO;
    try {
        return handle_request(conn, c, method, version, upload_data, upload_data_size);
    } catch (...) {
        return MHD_NO;
    }
}

// --- start-up --------------------------------------------------------------

void usage(FILE *to) {
    std::fprintf(to,
                 "usage: vtr-cmdserver [--port N] [--bind ADDRESS] [--plugin LIB] [--config FILE]\n"
                 "                     [--drives DIR] [--threads N] [--web DIR] [--pipe PATH]\n"
                 "                     [--allow-host NAME]...\n"
                 "  --port N        TCP port (default 8080; 0 picks a free one)\n"
                 "  --bind ADDRESS  IPv4 or IPv6 address to listen on (default 127.0.0.1)\n"
                 "  --plugin LIB    the file_operation plug-in (default: next to this program)\n"
                 "  --config FILE   the player's configuration variables (as vtr-host)\n"
                 "  --drives DIR    serve DIR as the drives root, in a private mount namespace\n"
                 "  --threads N     plug-in calls that may run at once (default 8)\n"
                 "  --web DIR       serve the console from DIR/index.html instead of the built-in copy\n"
                 "  --pipe PATH     progress pipe to read (default /tmp/vtr_framework_pipe)\n"
                 "  --allow-host NAME  accept this name in the Host header too (repeatable)\n");
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
        } else if (a == "--allow-host" && value(v)) {
            o.allowed_hosts.emplace_back(v);
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

int signal_pipe[2] = {-1, -1};

void on_signal(int) {
    char b = 1;
    (void)!::write(signal_pipe[1], &b, 1);
}

}  // namespace

int main(int argc, char **argv) {
    server_options opt;
    if (int r = parse_options(argc, argv, opt); r >= 0) return r;

    std::string plugin = absolute(opt.plugin.empty() ? host::default_plugin_path() : opt.plugin);
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
    // A quarter of the slots (at least one) stays free of long commands.
    state.long_slots = std::make_unique<std::counting_semaphore<1024>>(std::max(1, opt.threads - std::max(1, opt.threads / 4)));
    state.allowed_hosts = opt.allowed_hosts;
    state.bind = opt.bind;
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
        state.bind_any = v4->sin_addr.s_addr == htonl(INADDR_ANY);
        v4->sin_port = htons(static_cast<uint16_t>(opt.port));
    } else if (::inet_pton(AF_INET6, opt.bind.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        state.bind_any = IN6_IS_ADDR_UNSPECIFIED(&v6->sin6_addr);
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
        MHD_OPTION_CONNECTION_TIMEOUT, idle_timeout_s,
        MHD_OPTION_CONNECTION_LIMIT, max_connections,
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, max_per_address,
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
    (void)base::retry_eintr([&] { return ::read(signal_pipe[0], &b, 1); });
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
