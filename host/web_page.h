// The browser console (host/web/index.html), built into vtr-cmdserver.
#pragma once

#include <string_view>

namespace cmdserver {

std::string_view console_page() noexcept;

}  // namespace cmdserver
