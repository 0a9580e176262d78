#include "description/toml.h"

#include "description/names.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorval::runtime {

namespace {

/// Trees are taken apart and destroyed level by level, so their depth has to stay far from what a
/// stack bears.
constexpr std::size_t kMostLevels = 256;

/// Some characters, to be found in a text.
class Characters {
public:
    constexpr explicit Characters(std::string_view characters)
    {
        for (const char c : characters) {
            are_in_[static_cast<unsigned char>(c)] = true;
        }
    }

    /// Where the first one stands, at `at` or behind it, or the end of the text.
    std::size_t find(std::string_view text, std::size_t at) const
    {
        while (at < text.size() && !are_in_[static_cast<unsigned char>(text[at])]) {
            ++at;
        }
        return at;
    }

private:
    std::array<bool, UCHAR_MAX + 1> are_in_{};
};

constexpr Characters kMarks("\"'#.{[}],\n");
constexpr Characters kMarksInString("\"\\\n");
constexpr Characters kMarksInLiteral("'\n");

/// Finds what is nested too deeply in a text, without understanding more of it than strings,
/// comments and brackets. Whatever it makes of a text that is no TOML, the parser stops there.
class DepthScanner {
public:
    explicit DepthScanner(std::string_view text) : text_(text) {}

    /// Where the first level that is too much begins, or npos.
    std::size_t find_excess()
    {
        while (at_ < text_.size()) {
            if (depth_ >= kMostLevels) {
                return at_;
            }
            at_ = kMarks.find(text_, at_);
            if (at_ < text_.size()) {
                step();
            }
        }
        return std::string_view::npos;
    }

private:
    void step()
    {
        switch (text_[at_]) {
            case '"':
            case '\'':
                return skip_string(text_[at_]);
            case '#':
                at_ = std::min(text_.find('\n', at_), text_.size());
                return;
            case '.':
                ++depth_;
                break;
            case '{':
            case '[':
                outer_.push_back(base_);
                base_ = ++depth_;
                break;
            case '}':
            case ']':
                close();
                break;
            case ',':
            case '\n':
                depth_ = base_;
                break;
            default:
                break;
        }
        ++at_;
    }

    void close()
    {
        if (!outer_.empty()) {
            base_ = outer_.back();
            outer_.pop_back();
        }
    }

    void skip_string(char quote)
    {
        const Characters& marks = quote == '"' ? kMarksInString : kMarksInLiteral;
        const std::string_view three = quote == '"' ? R"(""")" : "'''";
        const bool is_long = text_.compare(at_, three.size(), three) == 0;
        at_ = marks.find(text_, at_ + (is_long ? three.size() : 1));
        for (; at_ < text_.size(); at_ = marks.find(text_, at_)) {
            const char c = text_[at_];
            if (c == '\\') {
                at_ += 2;
            } else if (!is_long) {
                at_ += c == quote ? 1 : 0;  // or the line ends, which no such string may go over
                return;
            } else if (c == quote && text_.compare(at_, three.size(), three) == 0) {
                // A long string may end with one or two quotes of its own.
                at_ = std::min(text_.find_first_not_of(quote, at_), at_ + three.size() + 2);
                return;
            } else {
                ++at_;
            }
        }
    }

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t depth_ = 0;           // parts and brackets around the present position
    std::size_t base_ = 0;            // the depth at which the present bracket began
    std::vector<std::size_t> outer_;  // the same of the brackets around it
};

/// The place of a byte.
Place place_of(std::string_view text, std::size_t position, std::uint32_t source)
{
    Place place{source, 1, 1};
    for (const char c : text.substr(0, position)) {
        if (c == '\n') {
            ++place.line;
            place.column = 1;
        } else if (!is_continuation(c)) {
            ++place.column;
        }
    }
    return place;
}

void append(toml::array& former, toml::array&& later)
{
    for (toml::node& item : later) {
        former.push_back(std::move(item));
    }
}

}  // namespace

std::optional<toml::table> parse_toml(const std::string& text, std::uint32_t source,
                                      Problems& problems)
{
    const std::size_t excess = DepthScanner(text).find_excess();
    if (excess != std::string_view::npos) {
        problems.add_error(
            place_of(text, excess, source),
            "more than " + std::to_string(kMostLevels) + " levels of keys and brackets");
        return std::nullopt;
    }
    try {
        // Each node has a share of the name, so the first source, nearly always the only one, has
        // none.
        return source == 0 ? toml::parse(text) : toml::parse(text, std::to_string(source));
    } catch (const toml::parse_error& error) {
        problems.add_error(place_of(error.source()), std::string(error.description()));
        return std::nullopt;
    }
}

Place place_of(const toml::source_region& region)
{
    Place place{0, region.begin.line, region.begin.column};
    if (region.path != nullptr) {
        std::from_chars(region.path->data(), region.path->data() + region.path->size(),
                        place.source);
    }
    return place;
}

Place place_of(const toml::key& key)
{
    return place_of(key.source());
}

Place place_of(const toml::node& node)
{
    return place_of(node.source());
}

namespace {

enum class Level { Graph, Superblocks, Superblock, Other };

/// What a table below a key is.
Level level_below(Level level, std::string_view key)
{
    if (level == Level::Graph && key == "superblocks") {
        return Level::Superblocks;
    }
    return level == Level::Superblocks ? Level::Superblock : Level::Other;
}

void merge_table(toml::table& former, toml::table&& later, Level level)
{
    const bool has_connections = level == Level::Graph || level == Level::Superblock;
    for (auto&& [key, node] : later) {
        toml::node* const present = former.get(key);
        if (present != nullptr && present->is_table() && node.is_table()) {
            merge_table(*present->as_table(), std::move(*node.as_table()), level_below(level, key));
        } else if (present != nullptr && has_connections && key == "connections" &&
                   present->is_array() && node.is_array()) {
            append(*present->as_array(), std::move(*node.as_array()));
        } else {
            // As a whole, so that the key has the place of the later one, too.
            former.erase(key.str());
            former.insert(key, std::move(node));
        }
    }
}

}  // namespace

void merge_toml(toml::table& former, toml::table&& later)
{
    merge_table(former, std::move(later), Level::Graph);
}

}  // namespace Quorval::runtime
