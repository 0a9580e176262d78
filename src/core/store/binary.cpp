#include <quorval/config.h>
#include <quorval/pstore.h>
#include "config/impl.h"
#include "store/bools.h"

#include <cereal/archives/binary.hpp>
#include <cereal/details/helpers.hpp>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <fstream>
#include <istream>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Quorval {

namespace {

using Count = std::uint64_t;

// What is read at once from a source that does not tell how much it holds.
constexpr std::size_t kStep = std::size_t{64} * 1024;
// On the stack, of which a thread may have little. A multiple of the bools in a word.
constexpr std::size_t kChunk = 4096;

[[noreturn]] void throw_bad_state()
{
    throw std::runtime_error("Stream entered a bad state");
}

[[noreturn]] void throw_unknown_type(const std::string& key, std::string_view type_name)
{
    throw std::runtime_error("The parameter " + key +
                             " has an unknown type: " + std::string(type_name));
}

[[noreturn]] void throw_short_write(Count asked, Count written)
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
    for (const Entry& entry : elements) {
        size += size_of(entry.key) + size_of(kTypeNames[entry.value.index()]) +
                visit_content(entry.value, [](const auto& content) { return size_of(content); });
    }
    return size;
}

/// Whether a buffer is one of the standard library itself, of no derived class: nobody can tell
/// then in how many pieces it is read or written. The type information of a class that was compiled
/// without any is null, so its address alone is looked at.
template <class Buffer>
bool is_plainly(const std::streambuf& buffer)
{
    return &typeid(buffer) == &typeid(Buffer);
}

/// The buffer if it is a plain one in memory that can be written, else null.
std::stringbuf* memory_of(std::streambuf& buffer)
{
    constexpr std::streamoff kFailed = -1;
    const bool is_writable =
        is_plainly<std::stringbuf>(buffer) &&
        buffer.pubseekoff(0, std::ios::cur, std::ios::out) != std::streampos(kFailed);
    return is_writable ? static_cast<std::stringbuf*>(&buffer) : nullptr;
}

/// Asks for large pages where memory is mapped for this text alone. Of small ones, the system takes
/// longer to hand out 100 MB than it takes to fill them.
void prefer_large_pages(std::string& room)
{
    constexpr std::size_t kAlwaysMapped = std::size_t{32} * 1024 * 1024;
    if (room.capacity() > kAlwaysMapped) {
        const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        void* start = room.data();
        std::size_t size = room.capacity();
        ::madvise(std::align(page, page, start, size), size, MADV_HUGEPAGE);
    }
}

/// Makes room in an empty buffer, which would otherwise grow by doubling and be copied each time.
void reserve(std::stringbuf& buffer, std::size_t size)
{
    if (buffer.view().empty()) {
        std::string room;
        room.reserve(size);
        prefer_large_pages(room);
        buffer.str(std::move(room));
    }
}

/// Writes the fields of records. Gathers them and writes many at once where nobody can tell, else
/// each with one raw write, and a long list of bools in steps.
class Writer {
public:
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the chunk is filled before it is read
    Writer(std::ostream& out, bool gathers) : gathers_(gathers), out_(out), archive_(out) {}

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
        const std::size_t count = bools.size();
        write_count(count);
        for (std::size_t done = 0; done < count;) {
            const std::size_t some = std::min(count - done, kChunk);
            unpack_bools(bools, done, some, make_room(some));
            used_ += some;
            if (!gathers_) {
                write_bools(some);
            }
            done += some;
        }
    }

    /// Writes what is gathered.
    void flush()
    {
        if (used_ > 0) {
            write_now(chunk_.data(), std::exchange(used_, 0));
        }
    }

private:
    void write_count(Count count) { write_bytes(&count, sizeof count); }

    void write_bytes(const void* data, std::size_t size)
    {
        if (!gathers_ || size > kChunk) {
            flush();
            write_now(data, size);
        } else if (size > 0) {
            std::memcpy(make_room(size), data, size);
            used_ += size;
        }
    }

    void write_now(const void* data, std::size_t size)
    {
        archive_.saveBinary(data, static_cast<std::streamsize>(size));
    }

    /// Where the next bytes go, at most a chunk of them.
    char* make_room(std::size_t size)
    {
        if (size > kChunk - used_) {
            flush();
        }
        return chunk_.data() + used_;
    }

    /// Writes the chunk, which holds so many bools. Each is a field of its own, so that a short
    /// write is one of a single byte.
    void write_bools(std::size_t count)
    {
        used_ = 0;
        const auto size = static_cast<std::streamsize>(count);
        if (out_.rdbuf()->sputn(chunk_.data(), size) != size) {
            throw_short_write(1, 0);
        }
    }

    const bool gathers_;
    std::size_t used_ = 0;
    std::ostream& out_;
    cereal::BinaryOutputArchive archive_;
    std::array<char, kChunk> chunk_;
};

/// What lies ready in a buffer of the standard library, to be taken without a call of it.
class Ready : std::streambuf {
public:
    /// The next bytes, which are passed; null when not so many lie ready.
    static const char* take(std::streambuf& buffer, std::size_t size)
    {
        const char* const next = (buffer.*&Ready::gptr)();
        const auto ready = static_cast<std::size_t>((buffer.*&Ready::egptr)() - next);
        if (size > ready) {
            return nullptr;
        }
        (buffer.*&Ready::gbump)(static_cast<int>(size));
        return next;
    }
};

/// Reads the fields of records. Counts come from the input and are not to be trusted: memory is
/// taken only for what is there.
class Reader {
public:
    explicit Reader(std::istream& in)
        : buffer_(*in.rdbuf()),
          is_plain_(is_plainly<std::stringbuf>(buffer_) || is_plainly<std::filebuf>(buffer_)),
          archive_(in)
    {
    }

    /// Whether the data is known to end here. To ask a buffer of somebody else could show.
    bool is_at_end() { return is_plain_ && buffer_.sgetc() == std::streambuf::traits_type::eof(); }

    /// Reads a text, into `room` where it does not lie ready. Holds until the next read.
    std::string_view read_view(std::string& room)
    {
        const Count count = read_count();
        if (const char* const bytes = take(count)) {
            return {bytes, count};
        }
        room.clear();
        read_block(room, count);
        return room;
    }

    void read(int& value) { read_object(value); }
    void read(double& value) { read_object(value); }
    void read(bool& value)
    {
        char byte = 0;
        read_object(byte);
        value = to_bool(byte);
    }

    void read(std::string& text)
    {
        const std::string_view view = read_view(text);
        if (view.data() != text.data()) {
            text.assign(view);
        }
    }

    template <class Number>
    void read(std::vector<Number>& numbers)
    {
        read_block(numbers, read_count());
    }

    void read(std::vector<std::string>& texts)
    {
        constexpr Count kFew = 16;
        Count left = read_count();
        texts.reserve(std::min(left, kFew));
        for (; left > 0; --left) {
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
        std::array<char, kChunk> chunk;
        for (Count done = 0; done < count;) {
            const Count some = std::min<Count>(count - done, kChunk);
            const char* bytes = take(some);
            if (bytes == nullptr) {
                read_bools(chunk.data(), some);
                bytes = chunk.data();
            }
            append_bools(bools, bytes, some);
            done += some;
        }
    }

private:
    /// The next bytes where they lie, null when so many do not lie ready.
    const char* take(Count size)
    {
        return is_plain_ && size <= kStep ? Ready::take(buffer_, size) : nullptr;
    }

    void read_bytes(void* to, std::size_t size)
    {
        if (const char* const bytes = take(size)) {
            std::memcpy(to, bytes, size);
        } else {
            archive_.loadBinary(to, static_cast<std::streamsize>(size));
        }
    }

    template <class Object>
    void read_object(Object& object)
    {
        read_bytes(&object, sizeof object);
    }

    Count read_count()
    {
        Count count = 0;
        read_object(count);
        return count;
    }

    /// Reads `count` items that lie one behind the other into an empty vector or string.
    template <class Items>
    void read_block(Items& items, Count count)
    {
        constexpr std::size_t kSize = sizeof(typename Items::value_type);
        const Count most = is_there(count, kSize) ? count : kStep / kSize;
        for (Count done = 0; done < count;) {
            const Count some = std::min(count - done, most);
            items.resize(done + some);
            read_items(items.data() + done, some, count, done);
            done += some;
        }
    }

    /// Reads some of `count` items with one raw read, after those that are `done`. A short read is
    /// reported as that of the whole, which the archive can do only where it is the whole.
    template <class Item>
    void read_items(Item* items, Count some, Count count, Count done)
    {
        if (some == count) {
            read_bytes(items, some * sizeof(Item));
            return;
        }
        const auto asked = static_cast<std::streamsize>(some * sizeof(Item));
        const std::streamsize read = buffer_.sgetn(reinterpret_cast<char*>(items), asked);
        if (read != asked) {
            throw_short_read(decimal_product(count, sizeof(Item)),
                             done * sizeof(Item) + static_cast<Count>(read));
        }
    }

    /// Reads so many bools with one raw read. Each is a field of its own, so that a short read is
    /// one of a single byte.
    void read_bools(char* bytes, Count count)
    {
        const auto size = static_cast<std::streamsize>(count);
        if (buffer_.sgetn(bytes, size) != size) {
            throw_short_read("1", 0);
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
        const std::streamoff here = buffer_.pubseekoff(0, std::ios::cur, std::ios::in);
        if (here == kFailed) {
            return false;
        }
        const std::streamoff end = buffer_.pubseekoff(0, std::ios::end, std::ios::in);
        buffer_.pubseekpos(here, std::ios::in);
        return end >= here && count <= static_cast<Count>(end - here) / size;
    }

    std::streambuf& buffer_;
    const bool is_plain_;
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
ReadValue find_reader(std::string_view type_name)
{
    const auto found = std::find(kTypeNames.begin(), kTypeNames.end(), type_name);
    return found != kTypeNames.end()
               ? kReadValue[static_cast<std::size_t>(found - kTypeNames.begin())]
               : nullptr;
}

/// What stands in front of a value.
struct Header {
    std::string key;
    std::string_view type_name;
    std::string room;  // for the type name
};

/// Reads the header of the next record. False at the end of the data, which has no other mark than
/// that the next record is not there; what is cut off inside a header is lost with it.
bool read_header(Reader& reader, Header& header)
{
    try {
        if (reader.is_at_end()) {
            return false;
        }
        reader.read(header.key);
        header.type_name = reader.read_view(header.room);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

POFStream& operator<<(POFStream& out, const BlockConfiguration& config)
{
    const Elements& elements = BlockConfiguration::Impl::of(config).elements;
    if (elements.size() == 0) {
        return out;
    }
    if (out.rdbuf() == nullptr) {
        throw_short_write(sizeof(Count), 0);
    }
    std::stringbuf* const memory = memory_of(*out.rdbuf());
    if (memory != nullptr) {
        reserve(*memory, size_of(elements));
    }
    Writer writer(out, memory != nullptr);
    for (const Entry& entry : elements) {
        writer.write(entry.key);
        writer.write(kTypeNames[entry.value.index()]);
        visit_content(entry.value, [&writer](const auto& content) { writer.write(content); });
    }
    writer.flush();
    return out;
}

std::istream& operator>>(std::istream& in, BlockConfiguration& config)
{
    if (!in.good()) {
        throw_bad_state();
    }
    Reader reader(in);
    Header header;
    while (read_header(reader, header)) {
        const ReadValue read = find_reader(header.type_name);
        if (read == nullptr) {
            throw_unknown_type(header.key, header.type_name);
        }
        BlockConfiguration::Impl::of(config).set(header.key, read(reader));
        if (!in.good()) {
            throw_bad_state();
        }
    }
    return in;
}

}  // namespace Quorval
