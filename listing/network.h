// Listings of network shares: the configured shares as entries, the
// network-share client and the lister of its answer file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "base/owners.h"
#include "base/result.h"
#include "base/text.h"
#include "listing/cache_records.h"
#include "platform/host_api.h"

// listtype of a client request, indexed by wantFiles + 2 * wantFolders:
// 1 folders and files (and neither), 2 files only, 3 folders only.
extern "C" int32_t netfs_option[4];

namespace listing {

inline constexpr const char *netfs_client_program = "/opt/vtrhttpd/default/netfs_client";
inline constexpr const char *netfs_answer_file = "/tmp/smb.out";

inline int32_t netfs_list_type(bool want_folders, bool want_files) noexcept {
    return netfs_option[(want_files ? 1 : 0) + 2 * (want_folders ? 1 : 0)];
}

// Holds the answer file for one request from the client's start to the end
// of its reading, so that parallel network listings in one process (or in
// several) do not read each other's answers: flock on a lock file beside
// the answer file (without a lock file the listing goes on unlocked).
class netfs_answer_lock {
public:
    netfs_answer_lock() noexcept;
    netfs_answer_lock(const netfs_answer_lock &) = delete;
    netfs_answer_lock &operator=(const netfs_answer_lock &) = delete;

private:
    base::unique_fd fd_;
};

// One record of the answer file: a field line ("|"-separated: name, size,
// date, type code, ...) and an address line (the entry's URL after "url=",
// or the whole line).
inline constexpr int netfs_line_max = 4095;  // up to 4094 characters a line
struct netfs_record {
    char fields_text[netfs_line_max];
    char address_text[netfs_line_max];
    char cut[4][256];               // the first four fields, cut to 255 characters
    char last[netfs_line_max];      // the fifth, up to the next "|"
    int count = 0;                  // fields present, at most 5
    const char *address = "";
    const char *field(int i) const noexcept {  // 0-based; "" when absent
        if (i >= count) return "";
        return i < 4 ? cut[i] : last;
    }
};

// The answer file, open for reading record by record.
struct netfs_answer {
    std::unique_ptr<FILE, int (*)(FILE *)> in{nullptr, &std::fclose};
    std::unique_ptr<netfs_record> record;
};

// False when the file cannot be opened or there is no room for a record.
bool open_netfs_answer(const char *answer_file, netfs_answer &answer) noexcept;

// The next well-formed record (a pair of non-empty lines, each ended by a
// line feed; malformed pairs are passed over); null at the end of the file.
const netfs_record *next_netfs_record(netfs_answer &answer) noexcept;

// Request line of the list command:
// "cmd=4&outfile=/tmp/smb.out&offset=..&range=..&listtype=..&filter=..&sort=..".
bool format_list_request(char (&line)[512], int64_t offset, int64_t range, int32_t list_type, int filter_code,
                         int sort_order) noexcept;

// Runs the network client with the request line and the share URL and
// waits for it; the client's exit status (bits 8 to 15 of the wait
// status): 0 for success, else a network error code for
// vtr_network_error_handler (127 when it could not be started).
int run_netfs_client(const char *request_line, const char *url) noexcept;

// Runs the network client with the request line and the share URL while
// holding the answer file, then `read` (the answer's reader) before letting
// the file go: the network error of the client, or what `read` answers.
template <typename Read>
base::rc run_netfs_request(const char *request_line, const char *url, Read read) noexcept {
    netfs_answer_lock held;
    int status = run_netfs_client(request_line, url);
    if (status != 0) return base::from_host(vtr_network_error_handler(status));
    return read();
}

struct network_listing {
    bool want_folders = true;
    bool want_files = true;
    bool with_details = true;
    const char *filter_word = nullptr;  // media filter word as the client gave it
    const listing_key *cache_key = nullptr;  // non-null: append the page to the listing cache
};

// Reads the client's answer file and appends the listing under the
// response: "fileList" (re-appended after every entry), the summary counts,
// "totalFile" and "convertPath". 0 on success, -1 when the file cannot be
// opened (nothing appended).
base::rc list_network_folder(VantorXmlNode *response_slot, const char *url, const network_listing &request,
                            const char *answer_file = netfs_answer_file) noexcept;

// Appends a "file" per configured share ("netfs_name<N>"/"netfs_url<N>",
// N 0..20) under parent; with details the empty dates and size and
// "device_type", with check_library "pvx". Returns the number appended.
int32_t append_network_shares(VantorXmlNode parent, bool with_details, bool check_library) noexcept;

// The URL of the configured share mounted at the local path's folder below
// NETWORK_SHARE (the share of that display name, if its mount holds the
// path), with the rest of the path behind it; false otherwise.
bool local_path_to_share_url(const char *local_path, char (&out)[base::path_max]) noexcept;

}  // namespace listing
