#include "base/answer.h"

#include <cstdio>

namespace base {

VantorXmlNode new_element(const char *tag, const char *text) noexcept {
    VantorXmlNode node = nullptr;
    VANTOR_SIMPLE_XML_new_node(&node, tag, text != nullptr ? text : "");
    return node;
}

VantorXmlNode add_element(VantorXmlNode parent, const char *tag, const char *text) noexcept {
    VantorXmlNode node = new_element(tag, text);
    VANTOR_SIMPLE_XML_add_child_node(parent, node);
    return node;
}

VantorXmlNode add_number(VantorXmlNode parent, const char *tag, long long value) noexcept {
    char text[24];
    std::snprintf(text, sizeof text, "%lld", value);
    return add_element(parent, tag, text);
}

VantorXmlNode add_unsigned(VantorXmlNode parent, const char *tag, unsigned long long value) noexcept {
    char text[24];
    std::snprintf(text, sizeof text, "%llu", value);
    return add_element(parent, tag, text);
}

VantorXmlNode add_bytes(VantorXmlNode parent, const char *tag, const void *data, unsigned int length) noexcept {
    VantorXmlNode node = nullptr;
    VANTOR_SIMPLE_XML_new_node_binary(&node, tag, data, length);
    VANTOR_SIMPLE_XML_add_child_node(parent, node);
    return node;
}

}  // namespace base
