#include <cstddef>
#include <iostream>
#include <string>
#include <vector>

#include <quorval/config.h>

#include "config/elements.h"

namespace Quorval {

namespace {

template <class Content>
void write_content(std::ostream& os, const Content& content)
{
    os << content;
}

template <class Item>
void write_content(std::ostream& os, const std::vector<Item>& items)
{
    os << '{';
    const char* separator = "";
    for (const Item& item : items) {
        os << separator << item;
        separator = ", ";
    }
    os << '}';
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const BlockConfiguration& config)
{
    os << "BlockConfiguration:" << std::endl;
    for (const auto& [key, element] : BlockConfiguration::Impl::of(config).elements) {
        os << key << " (" << kTypeNames[element.value.index()] << ") = ";
        visit_content(element.value, [&os](const auto& content) { write_content(os, content); });
        os << std::endl;
    }
    return os;
}

void BlockConfiguration::print() const
{
    std::cout << *this << std::endl;
}

}  // namespace Quorval
