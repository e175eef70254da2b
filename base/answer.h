// Building answers: every element a command adds under the host's response
// goes through these. Text is copied by the host; a null text is "".
#pragma once

#include "platform/host_api.h"

namespace base {

// New element, not yet appended.
VantorXmlNode new_element(const char *tag, const char *text) noexcept;
// New element appended as the last child of parent; returns it.
VantorXmlNode add_element(VantorXmlNode parent, const char *tag, const char *text) noexcept;
VantorXmlNode add_number(VantorXmlNode parent, const char *tag, long long value) noexcept;
VantorXmlNode add_unsigned(VantorXmlNode parent, const char *tag, unsigned long long value) noexcept;
VantorXmlNode add_bytes(VantorXmlNode parent, const char *tag, const void *data, unsigned int length) noexcept;

// The element in the slot the host hands to a command: where its answer goes.
inline VantorXmlNode response_of(VantorXmlNode *response_slot) noexcept {
    return response_slot != nullptr ? *response_slot : nullptr;
}

}  // namespace base
