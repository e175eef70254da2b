// Loading the file_operation plug-in the way the player's command server
// does: dlopen the library, call its descriptor factory once, then call the
// run entry the descriptor points to once per request. Shared by the hosts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/host_api.h"

namespace host {

struct loaded_plugin {
    void *library = nullptr;   // dlopen handle, kept for the life of the process
    VantorRunEntry run = nullptr;
    CommandDescriptor descriptor{};
};

// Loads the library at path and registers it (the factory sleeps one second).
// On failure returns false and puts the reason into error.
bool load_plugin(const char *path, loaded_plugin &out, std::string &error) noexcept;

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
