#include "host/plugin_loader.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#ifndef FILEOP_INSTALL_LIBDIR
#define FILEOP_INSTALL_LIBDIR "lib"
#endif

namespace host {
namespace {

constexpr const char factory_name[] =
    "VANTOR_COMMAND_SERVER_func_create_command_file_operation_descriptor";
constexpr const char run_name[] = "VANTOR_COMMAND_SERVER_func_run_command_file_operation";
using factory_fn = CommandDescriptor *(*)(CommandDescriptor *);

}  // namespace

std::string default_plugin_path() {
    constexpr const char *file = "libvantor_command_server_command_file_operation.so";
    char self[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    std::string dir = ".";
    if (n > 0) {
        self[n] = '\0';
        dir = self;
        std::size_t slash = dir.rfind('/');
        dir = slash == 0 ? "/" : dir.substr(0, slash);
    }
    const std::string candidates[] = {
        dir + "/" + file,                                          // build tree
        dir + "/../" + file,                                       // a host built one level down
        dir + "/../" + FILEOP_INSTALL_LIBDIR + "/" + file,         // installed
        dir + "/../lib/" + file,
    };
    for (const std::string &c : candidates)
        if (::access(c.c_str(), R_OK) == 0) return c;
    return candidates[0];
}

bool load_plugin(const char *path, loaded_plugin &out, std::string &error) noexcept {
    void *lib = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        const char *why = ::dlerror();
        error = why != nullptr ? why : "dlopen failed";
        return false;
    }
    auto factory = reinterpret_cast<factory_fn>(::dlsym(lib, factory_name));
    if (factory == nullptr) {
        error = std::string("missing export ") + factory_name;
        ::dlclose(lib);
        return false;
    }
    out.descriptor = CommandDescriptor{};
    out.descriptor.host_word0 = out.descriptor.host_word36 = out.descriptor.host_word44 =
        out.descriptor.host_word48 = host_marker;
    if (factory(&out.descriptor) != &out.descriptor) {
        error = "the descriptor factory did not return the descriptor";
        ::dlclose(lib);
        return false;
    }
    out.descriptor.name[sizeof out.descriptor.name - 1] = '\0';
    if (std::strcmp(out.descriptor.name, "file_operation") != 0) {
        error = std::string("unexpected command group name \"") + out.descriptor.name + "\"";
        ::dlclose(lib);
        return false;
    }
    out.exported_run = reinterpret_cast<VantorRunEntry>(::dlsym(lib, run_name));
    out.run = out.descriptor.run != nullptr ? out.descriptor.run : out.exported_run;
    if (out.run == nullptr) {
        error = "the descriptor holds no run entry";
        ::dlclose(lib);
        return false;
    }
    out.library = lib;
    return true;
}

request_block::request_block(const std::vector<std::string> &words) : words_(words) {
    const std::size_t bytes = offsetof(CommandArgs, argv) + (words_.size() + 1) * sizeof(char *);
    args_ = static_cast<CommandArgs *>(std::calloc(1, bytes));
    if (args_ == nullptr) throw std::bad_alloc();
    args_->argc = static_cast<int32_t>(words_.size());
    for (std::size_t i = 0; i < words_.size(); ++i) args_->argv[i] = words_[i].data();
    args_->argv[words_.size()] = nullptr;
    request_.host_word0 = request_.host_word1 = host_marker;
    request_.args = args_;
}

request_block::~request_block() { std::free(args_); }

int32_t run_plugin(const loaded_plugin &plugin, const std::vector<std::string> &words,
                   VantorXmlNode response) noexcept {
    try {
        request_block block(words);
        return plugin.run(block.request(), nullptr, nullptr, response);
    } catch (...) {
        return 1;
    }
}

}  // namespace host
