#include <quorval/config.h>
#include "fuzz/input.h"
#include "fuzz/model.h"
#include "fuzz/targets.h"
#include "support/allocations.h"

#include <algorithm>
#include <istream>
#include <set>
#include <sstream>
#include <streambuf>
#include <string>

namespace quorval_fuzz {

using Quorval::BlockConfiguration;

namespace {

/// An input in memory that knows where it ends.
class WholeBuffer : public std::streambuf {
public:
    explicit WholeBuffer(std::string& bytes)
    {
        setg(bytes.data(), bytes.data(), bytes.data() + bytes.size());
    }

protected:
    pos_type seekoff(off_type offset, std::ios::seekdir direction, std::ios::openmode) override
    {
        char* const from = direction == std::ios::beg   ? eback()
                           : direction == std::ios::cur ? gptr()
                                                        : egptr();
        return seekpos(from - eback() + offset, std::ios::in);
    }

    pos_type seekpos(pos_type position, std::ios::openmode) override
    {
        setg(eback(), eback() + static_cast<off_type>(position), egptr());
        return position;
    }
};

/// An input that comes in small pieces, of which nobody knows how many there are.
class DrippingBuffer : public std::streambuf {
public:
    explicit DrippingBuffer(std::string& bytes)
        : at_(bytes.data()), end_(bytes.data() + bytes.size())
    {
    }

protected:
    int_type underflow() override
    {
        constexpr std::ptrdiff_t kPiece = 7;
        char* const from = at_;
        at_ += std::min(kPiece, end_ - at_);
        setg(from, from, at_);
        return from == at_ ? traits_type::eof() : traits_type::to_int_type(*from);
    }

private:
    char* at_;
    char* end_;
};

/// `count * size` in decimal, which may need more than 64 bits.
std::string decimal(unsigned __int128 number)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(number % 10)));
        number /= 10;
    } while (number != 0);
    return digits;
}

/// The end of the data inside a record.
struct Short {
    unsigned __int128 asked;
    std::size_t there;
};

/// Reads the binary form byte by byte.
class NaiveReader {
public:
    explicit NaiveReader(const std::string& bytes) : bytes_(bytes) {}

    /// Reads all records into `model`; returns the exception that has to come out.
    std::string read(Model& model)
    {
        while (true) {
            std::string key;
            std::string type;
            try {
                key = read_text();
                type = read_text();
            } catch (const Short&) {
                return "";
            }
            try {
                std::string unknown;
                ModelValue value = read_value(type, unknown);
                if (!unknown.empty()) {
                    return "runtime_error: The parameter " + key + " has an unknown type: " + type;
                }
                if (const std::string refusal = refusal_of_key(key); !refusal.empty()) {
                    return refusal;
                }
                model[key] = {std::move(value), false};
            } catch (const Short& error) {
                return "derived: Failed to read " + decimal(error.asked) +
                       " bytes from input stream! Read " + std::to_string(error.there);
            }
        }
    }

private:
    std::string take(std::uint64_t count, std::size_t size)
    {
        const std::size_t left = bytes_.size() - at_;
        const auto wanted = static_cast<unsigned __int128>(count) * size;
        if (wanted > left) {
            at_ = bytes_.size();
            throw Short{wanted, left};
        }
        at_ += static_cast<std::size_t>(wanted);
        return bytes_.substr(at_ - static_cast<std::size_t>(wanted),
                             static_cast<std::size_t>(wanted));
    }

    template <class Number>
    Number read_number()
    {
        Number number;
        std::memcpy(&number, take(1, sizeof number).data(), sizeof number);
        return number;
    }

    std::string read_text() { return take(read_number<std::uint64_t>(), 1); }

    template <class Number>
    std::vector<Number> read_numbers()
    {
        const auto count = read_number<std::uint64_t>();
        const std::string block = take(count, sizeof(Number));
        std::vector<Number> numbers(static_cast<std::size_t>(count));
        if (!block.empty()) {
            std::memcpy(numbers.data(), block.data(), block.size());
        }
        return numbers;
    }

    ModelValue read_value(const std::string& type, std::string& unknown)
    {
        if (type == "int") {
            return read_number<std::int32_t>();
        }
        if (type == "bool") {
            return (take(1, 1)[0] & 1) != 0;
        }
        if (type == "double") {
            return read_number<double>();
        }
        if (type == "string") {
            return read_text();
        }
        if (type == "IntVector") {
            return read_numbers<int>();
        }
        if (type == "DoubleVector") {
            return read_numbers<double>();
        }
        if (type == "StringVector") {
            std::vector<std::string> texts;
            for (auto left = read_number<std::uint64_t>(); left > 0; --left) {
                texts.push_back(read_text());
            }
            return texts;
        }
        if (type == "BoolVector") {
            std::vector<bool> bools;
            for (auto left = read_number<std::uint64_t>(); left > 0; --left) {
                bools.push_back((take(1, 1)[0] & 1) != 0);
            }
            return bools;
        }
        unknown = "unknown " + type;
        return 0;
    }

    const std::string& bytes_;
    std::size_t at_ = 0;
};

/// The most that reading may hold at once: the pieces in which it reads what it does not trust, and
/// a small multiple of what is there. The worst case are the lists of empty strings.
std::size_t most_memory(std::size_t input)
{
    constexpr std::size_t kPieces = std::size_t{80} * 1024;
    return kPieces + 16 * input;
}

void check_reading(std::streambuf& buffer, const Model& before, const Model& after,
                   const std::string& failure, std::size_t size)
{
    BlockConfiguration config{{"was.there", 1}};
    config.getInt("was.there");
    check_same(config, before);
    std::istream in(&buffer);
    const std::size_t held = quorval_test::live_bytes();

    quorval_test::restart_peak();
    const std::string thrown = failure_of([&] { in >> config; });
    const std::size_t peak = quorval_test::peak_bytes();

    require_failure(thrown, failure, "what came out");
    require(peak - held <= most_memory(size), "the memory that reading has held");
    check_same(config, after);
}

/// Does with a configuration what its users do.
void use(const BlockConfiguration& config, const Model& model)
{
    std::ostringstream text;
    text << config;
    require_equal(text.str(), print(model), "the text form");
    check_same_marks(config, model);

    std::set<std::string> prefixes = {""};
    for (const auto& [key, element] : model) {
        prefixes.insert(key.substr(0, key.find('.')));
    }
    for (const std::string& prefix : prefixes) {
        for (const auto& child : config.iterate_subtree(prefix)) {
            require(child.full_key() == child.prefix() + child.key(), "the path of a child");
            child.index();
        }
        config.getSubtree(prefix);
    }
}

}  // namespace

void fuzz_read(const std::uint8_t* data, std::size_t size)
{
    std::string bytes(reinterpret_cast<const char*>(data), size);
    const Model before = {{"was.there", {1, true}}};
    Model after = before;
    const std::string failure = NaiveReader(bytes).read(after);

    WholeBuffer whole(bytes);
    check_reading(whole, before, after, failure, size);
    DrippingBuffer dripping(bytes);
    check_reading(dripping, before, after, failure, size);

    BlockConfiguration config;
    Model model;
    WholeBuffer again(bytes);
    std::istream in(&again);
    failure_of([&] { in >> config; });
    NaiveReader(bytes).read(model);
    use(config, model);

    // Whatever was read can be stored and read back.
    std::string stored = to_bytes(config);
    BlockConfiguration read_back;
    WholeBuffer stored_buffer(stored);
    std::istream stored_in(&stored_buffer);
    stored_in >> read_back;
    check_same(read_back, model);
    require_equal(to_bytes(read_back), stored, "the binary form of what was read back");
}

}  // namespace quorval_fuzz
