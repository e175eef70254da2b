// Loading the file_operation plug-in the way the player's command server
// does: dlopen the library, call its descriptor factory once, then call the
// run entry the descriptor points to once per request. Shared by the hosts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/host_api.h"

namespace host {

// The host's own words of the descriptor and the request: the plug-in must
// leave them as the host set them.
inline constexpr uint32_t host_marker = 0xa5a5a5a5u;

struct loaded_plugin {
    void *library = nullptr;   // dlopen handle, kept for the life of the process
    VantorRunEntry run = nullptr;
    VantorRunEntry exported_run = nullptr;  // the run entry exported by name, if any
    CommandDescriptor descriptor{};         // as the factory left it
};

// Loads the library at path and registers it (the factory sleeps one second).
// On failure returns false and puts the reason into error.
bool load_plugin(const char *path, loaded_plugin &out, std::string &error) noexcept;

// The plug-in beside the host program (build tree) or in the library folder
// of its installation; the first place tried when it is in neither.
std::string default_plugin_path();

// One request's argument block: argc, then argc text pointers, laid out as the
// plug-in reads it. The texts live as long as the block.
class request_block {
public:
    explicit request_block(const std::vector<std::string> &words);
    request_block(const request_block &) = delete;
    request_block &operator=(const request_block &) = delete;
    ~request_block();
    CommandRequest *request() noexcept { return &request_; }

private:
    std::vector<std::string> words_;
    CommandArgs *args_ = nullptr;
    CommandRequest request_{};
};

// Calls the run entry with the words (sub-command name first) and the
// response element; returns the plug-in's result unchanged.
int32_t run_plugin(const loaded_plugin &plugin, const std::vector<std::string> &words,
                   VantorXmlNode response) noexcept;

}  // namespace host
