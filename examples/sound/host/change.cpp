#include "change.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace host {

using Quorval::BlockConfiguration;

namespace {

constexpr const char* kBlanks = " \t\r";

/// Reads the whole text as a value of this type.
template <class Value>
bool parse(const std::string& text, Value& value)
{
    std::size_t length = 0;
    try {
        if constexpr (std::is_same_v<Value, int>) {
            value = std::stoi(text, &length);
        } else {
            value = std::stod(text, &length);
        }
    } catch (const std::logic_error&) {  // no number, or one out of range
        return false;
    }
    return length == text.size();
}

std::vector<double> parse_list(std::string text)
{
    std::replace_if(
        text.begin(), text.end(),
        [](char letter) { return letter == ',' || letter == '{' || letter == '}'; }, ' ');
    std::istringstream items(text);
    std::vector<double> list;
    for (std::string item; items >> item;) {
        if (!parse(item, list.emplace_back())) {
            throw std::invalid_argument("expected numbers in {}");
        }
    }
    return list;
}

void set_value(BlockConfiguration& config, const std::string& key, const std::string& text)
{
    int whole = 0;
    double number = 0;
    if (text.front() == '{' && text.back() == '}') {
        config.set(key, parse_list(text.substr(1, text.size() - 2)));
    } else if (text == "true" || text == "false") {
        config.set(key, text == "true");
    } else if (parse(text, whole)) {
        config.set(key, whole);
    } else if (parse(text, number)) {
        config.set(key, number);
    } else {
        config.set(key, text);
    }
}

}  // namespace

Change parse_change(const std::string& line)
{
    const std::size_t begin = std::min(line.find_first_not_of(kBlanks), line.size());
    const std::size_t end = std::min(line.find_first_of(kBlanks, begin), line.size());
    const std::size_t value = line.find_first_not_of(kBlanks, end);
    const std::size_t last = line.find_last_not_of(kBlanks);
    const std::string name = line.substr(begin, end - begin);
    const std::size_t stop = name.find('.');
    if (value == std::string::npos || stop == std::string::npos || stop == 0 ||
        stop + 1 == name.size()) {
        throw std::invalid_argument("expected <block>.<key> <value>");
    }
    Change change{name.substr(0, stop), {}};
    set_value(change.override, name.substr(stop + 1), line.substr(value, last + 1 - value));
    return change;
}

bool LineReader::read(int fd)
{
    constexpr std::size_t kPieceSize = 4096;
    std::array<char, kPieceSize> piece{};
    const ssize_t length = ::read(fd, piece.data(), piece.size());
    if (length < 0) {
        const int error = errno;
        throw std::system_error(error, std::generic_category(), "cannot read standard input");
    }
    pending_.append(piece.data(), static_cast<std::size_t>(length));
    ended_ = length == 0;
    return !ended_;
}

bool LineReader::next(std::string& line)
{
    constexpr std::size_t kLongestLine = 65536;
    std::size_t end = pending_.find('\n');
    if (end == std::string::npos) {
        const bool is_whole = ended_ && !pending_.empty();
        if (!is_whole && pending_.size() < kLongestLine) {
            return false;
        }
        end = pending_.size();
    }
    line = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    return true;
}

}  // namespace host
