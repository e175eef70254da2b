// The two entry points the command server resolves by name.
#include <unistd.h>

#include <cstdio>

#include "base/export.h"
#include "base/result.h"
#include "platform/host_api.h"
#include "plugin/commands.h"

extern "C" {

FILEOP_EXPORT int32_t VANTOR_COMMAND_SERVER_func_run_command_file_operation(
    CommandRequest *request, void * /*unused1*/, void * /*unused2*/, VantorXmlNode response) noexcept {
    FILEOP_GUARD_BEGIN
    // Handlers get the address of the slot that holds the response element.
    VantorXmlNode slot = response;
    return plugin::dispatch(plugin::file_operation_commands(), &slot, request);
    FILEOP_GUARD_END(base::to_host(base::rc::failure))
}

FILEOP_EXPORT CommandDescriptor *VANTOR_COMMAND_SERVER_func_create_command_file_operation_descriptor(
    CommandDescriptor *d) noexcept {
    ::sleep(1);  // the host expects the registration to take this long
    if (d == nullptr) return nullptr;
    int n = std::snprintf(d->name, sizeof d->name, "%s", "file_operation");
    if (n >= static_cast<int>(sizeof d->name)) d->name[sizeof d->name - 1] = '\0';
    if (n < 0) d->name[0] = '\0';
    d->value40 = 200;
    d->value52 = 10;
    d->value56 = 10;
    d->value60 = 0;
    d->run = &VANTOR_COMMAND_SERVER_func_run_command_file_operation;
    return d;
}

}  // extern "C"
