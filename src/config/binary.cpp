#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <istream>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <cereal/archives/binary.hpp>
#include <cereal/details/helpers.hpp>

#include <quorval/config.h>
#include <quorval/pstore.h>

#include "config/elements.h"

namespace Quorval {

namespace {

using Count = std::uint64_t;

// Bytes that are handled at once where there is no telling how many there are.
constexpr std::size_t kStep = std::size_t{64} * 1024;

[[noreturn]] void throw_bad_state()
{
    throw std::runtime_error("Stream entered a bad state");
}

[[noreturn]] void throw_unknown_type(const std::string& key, const std::string& type_name)
{
    throw std::runtime_error("The parameter " + key + " has an unknown type: " + type_name);
}

[[noreturn]] void throw_short_write(std::size_t asked, std::size_t written)
{
    throw cereal::Exception("Failed to write " + std::to_string(asked) +
                            " bytes to output stream! Wrote " + std::to_string(written));
}

[[noreturn]] void throw_short_read(const std::string& asked, Count read)
{
    throw cereal::Exception("Failed to read " + asked + " bytes from input stream! Read " +
                            std::to_string(read));
}

/// `count * size` in decimal. The count comes from the input, so the product may not fit in 64
/// bits.
std::string decimal_product(Count count, std::size_t size)
{
    constexpr Count kHalf = 1'000'000'000;
    constexpr std::size_t kHalfDigits = 9;
    const Count low = count % kHalf * size;
    const Count high = count / kHalf * size + low / kHalf;
    if (high == 0) {
        return std::to_string(low);
    }
    const std::string digits = std::to_string(low % kHalf);
    return std::to_string(high) + std::string(kHalfDigits - digits.size(), '0') + digits;
}

/// The bytes that a content takes behind its type name.
template <class Content>
std::size_t size_of(const Content& /*scalar*/)
{
    return sizeof(Content);
}

std::size_t size_of(std::string_view text)
{
    return sizeof(Count) + text.size();
}

std::size_t size_of(const std::string& text)
{
    return size_of(std::string_view(text));
}

template <class Item>
std::size_t size_of(const std::vector<Item>& items)
{
    return sizeof(Count) + items.size() * sizeof(Item);
}

std::size_t size_of(const std::vector<std::string>& texts)
{
    return std::accumulate(
        texts.begin(), texts.end(), sizeof(Count),
        [](std::size_t size, const std::string& text) { return size + size_of(text); });
}

std::size_t size_of(const Elements& elements)
{
    std::size_t size = 0;
    for (const auto& [key, element] : elements) {
        size += size_of(key) + size_of(kTypeNames[element.value.index()]) +
                visit_content(element.value, [](const auto& content) { return size_of(content); });
    }
    return size;
}

/// Makes room in an empty buffer, which would otherwise grow by doubling and be copied each time.
void reserve(std::stringbuf& buffer, std::size_t size)
{
    if (buffer.view().empty()) {
        std::string room;
        room.reserve(size);
        buffer.str(std::move(room));
    }
}

/// Writes the fields of a record, each with one raw write, bools in steps.
class Writer {
public:
    explicit Writer(std::ostream& out) : archive_(out) {}

    void write(int value) { write_bytes(&value, sizeof value); }
    void write(double value) { write_bytes(&value, sizeof value); }
    void write(bool value)
    {
        const unsigned char byte = value ? 1 : 0;
        write_bytes(&byte, sizeof byte);
    }

    void write(std::string_view text)
    {
        write_count(text.size());
        write_bytes(text.data(), text.size());
    }

    template <class Number>
    void write(const std::vector<Number>& numbers)
    {
        write_count(numbers.size());
        write_bytes(numbers.data(), numbers.size() * sizeof(Number));
    }

    void write(const std::vector<std::string>& texts)
    {
        write_count(texts.size());
        for (const std::string& text : texts) {
            write(text);
        }
    }

    void write(const std::vector<bool>& bools)
    {
        write_count(bools.size());
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled before it is read
        std::array<unsigned char, kStep> bytes;
        for (auto from = bools.begin(); from != bools.end();) {
            const auto left = static_cast<std::size_t>(bools.end() - from);
            const auto to = from + static_cast<std::ptrdiff_t>(std::min(left, kStep));
            const auto end = std::copy(from, to, bytes.begin());
            write_bytes(bytes.data(), static_cast<std::size_t>(end - bytes.begin()));
            from = to;
        }
    }

private:
    void write_count(Count count) { write_bytes(&count, sizeof count); }

    void write_bytes(const void* data, std::size_t size)
    {
        archive_.saveBinary(data, static_cast<std::streamsize>(size));
    }

    cereal::BinaryOutputArchive archive_;
};

/// Passes raw reads on and counts the bytes that they gave.
class CountingBuffer : public std::streambuf {
public:
    explicit CountingBuffer(std::streambuf& source) : source_(source) {}

    Count count() const { return count_; }

protected:
    std::streamsize xsgetn(char* to, std::streamsize size) override
    {
        const std::streamsize read = source_.sgetn(to, size);
        count_ += static_cast<Count>(read);
        return read;
    }

private:
    std::streambuf& source_;
    Count count_ = 0;
};

/// Reads the fields of a record. Counts come from the input and are not to be trusted: memory is
/// taken only for what is there.
class Reader {
public:
    explicit Reader(std::istream& in) : in_(in), archive_(in) {}

    void read(int& value) { archive_.loadBinary(&value, sizeof value); }
    void read(double& value) { archive_.loadBinary(&value, sizeof value); }
    void read(bool& value)
    {
        unsigned char byte = 0;
        archive_.loadBinary(&byte, sizeof byte);
        value = is_true(byte);
    }

    void read(std::string& text) { read_block(text); }

    template <class Number>
    void read(std::vector<Number>& numbers)
    {
        read_block(numbers);
    }

    void read(std::vector<std::string>& texts)
    {
        for (Count left = read_count(); left > 0; --left) {
            read(texts.emplace_back());
        }
    }

    void read(std::vector<bool>& bools)
    {
        const Count count = read_count();
        if (is_there(count, 1)) {
            bools.reserve(count);
        }
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled before it is read
        std::array<unsigned char, kStep> bytes;
        read_in_steps(count, 1, kStep, [&](cereal::BinaryInputArchive& archive, std::size_t step) {
            archive.loadBinary(bytes.data(), static_cast<std::streamsize>(step));
            bools.resize(bools.size() + step);
            std::transform(bytes.begin(), bytes.begin() + step,
                           bools.end() - static_cast<std::ptrdiff_t>(step), is_true);
        });
    }

private:
    static bool is_true(unsigned char byte) { return (byte & 1U) != 0; }

    Count read_count()
    {
        Count count = 0;
        archive_.loadBinary(&count, sizeof count);
        return count;
    }

    /// Reads a count, then as many items that lie one behind the other.
    template <class Items>
    void read_block(Items& items)
    {
        constexpr std::size_t kSize = sizeof(typename Items::value_type);
        const Count count = read_count();
        const Count step = is_there(count, kSize) ? count : kStep / kSize;
        read_in_steps(count, kSize, step,
                      [&](cereal::BinaryInputArchive& archive, std::size_t more) {
                          const std::size_t before = items.size();
                          items.resize(before + more);
                          archive.loadBinary(items.data() + before,
                                             static_cast<std::streamsize>(more * kSize));
                      });
    }

    /// Calls `read_step(archive, items)` until `count` items are read, for at most `step` at a
    /// time. A short read is reported as that of the whole.
    template <class ReadStep>
    void read_in_steps(Count count, std::size_t size, Count step, ReadStep read_step)
    {
        if (count <= step) {
            read_step(archive_, static_cast<std::size_t>(count));
            return;
        }
        CountingBuffer counting(*in_.rdbuf());
        std::istream stream(&counting);
        cereal::BinaryInputArchive archive(stream);
        try {
            for (Count left = count; left > 0;) {
                const Count now = std::min(left, step);
                read_step(archive, static_cast<std::size_t>(now));
                left -= now;
            }
        } catch (const cereal::Exception&) {
            throw_short_read(decimal_product(count, size), counting.count());
        }
    }

    /// Whether the input is known to hold `count` items of `size` bytes. Asked for large ones
    /// only: to ask costs the buffer of a file stream what it has read ahead.
    bool is_there(Count count, std::size_t size)
    {
        if (count <= kStep / size) {
            return false;
        }
        constexpr std::streamoff kFailed = -1;
        std::streambuf& buffer = *in_.rdbuf();
        const std::streamoff here = buffer.pubseekoff(0, std::ios::cur, std::ios::in);
        if (here == kFailed) {
            return false;
        }
        const std::streamoff end = buffer.pubseekoff(0, std::ios::end, std::ios::in);
        buffer.pubseekpos(here, std::ios::in);
        return end >= here && count <= static_cast<Count>(end - here) / size;
    }

    std::istream& in_;
    cereal::BinaryInputArchive archive_;
};

template <class Content>
Value read_value(Reader& reader)
{
    Content content{};
    reader.read(content);
    return make_value(std::move(content));
}

using ReadValue = Value (*)(Reader&);

// In the order of BlockConfiguration::Type.
constexpr std::array<ReadValue, kTypeNames.size()> kReadValue = {
    read_value<int>,
    read_value<bool>,
    read_value<double>,
    read_value<std::string>,
    read_value<std::vector<int>>,
    read_value<std::vector<double>>,
    read_value<std::vector<std::string>>,
    read_value<std::vector<bool>>};

/// The way to read the values of a type, null for an unknown one.
ReadValue find_reader(const std::string& type_name)
{
    const auto found = std::find(kTypeNames.begin(), kTypeNames.end(), type_name);
    return found != kTypeNames.end()
               ? kReadValue[static_cast<std::size_t>(found - kTypeNames.begin())]
               : nullptr;
}

/// Key and type name of the next record. False at the end of the data, which has no other mark
/// than that the next record is not there; what is cut off inside a header is lost with it.
bool read_header(Reader& reader, std::string& key, std::string& type_name)
{
    try {
        key.clear();
        reader.read(key);
        type_name.clear();
        reader.read(type_name);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

POFStream& operator<<(POFStream& out, const BlockConfiguration& config)
{
    const Elements& elements = BlockConfiguration::Impl::of(config).elements;
    if (out.rdbuf() == nullptr && !elements.empty()) {
        throw_short_write(sizeof(Count), 0);
    }
    reserve(out.buffer_, size_of(elements));
    Writer writer(out);
    for (const auto& [key, element] : elements) {
        writer.write(key);
        writer.write(kTypeNames[element.value.index()]);
        visit_content(element.value, [&writer](const auto& content) { writer.write(content); });
    }
    return out;
}

std::istream& operator>>(std::istream& in, BlockConfiguration& config)
{
    if (!in.good()) {
        throw_bad_state();
    }
    Reader reader(in);
    std::string key;
    std::string type_name;
    while (read_header(reader, key, type_name)) {
        const ReadValue read = find_reader(type_name);
        if (read == nullptr) {
            throw_unknown_type(key, type_name);
        }
        BlockConfiguration::Impl::of(config).set(key, read(reader));
        if (!in.good()) {
            throw_bad_state();
        }
    }
    return in;
}

}  // namespace Quorval
