// The hierarchical, typed configuration of blocks.
#pragma once

#include <quorval/export.h>

#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Quorval {

class POFStream;

/// An ordered map from dotted keys (`gain`, `ports.0.name`) to typed elements. A subtree `a` is
/// nothing but the elements whose keys begin with `a.`, a list is a subtree whose components are
/// the indices `0`, `1`, …. Every walk visits the keys in the order of their bytes.
///
/// Each element remembers whether a typed getter has read it (it is consumed), so that a key that
/// nothing reads, a misspelt one perhaps, can be found: see is_consumed(). Getters are const and
/// yet write that mark, so two threads must not even read one configuration at once.
///
/// Keys consist of letters, digits, "_", "-" and "."; only the operations that store check that.
/// An operation that throws leaves the configuration as it was, unless it says otherwise; an
/// argument may refer into the configuration that is changed.
class QUORVAL_EXPORT BlockConfiguration {
    class QUORVAL_HIDDEN ConfigIteratorImpl;

public:
    /// The type of an element. The numbers are part of the interface.
    enum class Type : int {
        Int,
        Bool,
        Double,
        String,
        IntVector,
        DoubleVector,
        StringVector,
        BoolVector
    };

    class KeyValue;
    class SubtreeIterator;
    class Iterator;

    /// An empty configuration.
    BlockConfiguration();

    /// A configuration written as a literal:
    /// `{{"gain", 0.5}, {"taps", {1, 2}}, {"in", {{{"name", "a"}}, {{"name", "b"}}}}}` holds
    /// `gain`, `taps`, `in.0.name` and `in.1.name`. Of members with the same full key the last one
    /// stays.
    /// @throws std::runtime_error  a key holds another character than those allowed, with the text
    ///                             of set() and the full key
    BlockConfiguration(std::initializer_list<KeyValue> values);

    /// Copies all elements and their marks.
    BlockConfiguration(const BlockConfiguration& other);
    BlockConfiguration& operator=(const BlockConfiguration& other);
    /// Takes all elements over; `other` is left empty.
    BlockConfiguration(BlockConfiguration&& other) noexcept;
    BlockConfiguration& operator=(BlockConfiguration&& other) noexcept;
    ~BlockConfiguration();

    /// Stores a value under `key`, unread, in place of whatever was stored there, of whatever type.
    /// @throws std::runtime_error  `key` holds a character other than letters, digits, "_", "-"
    ///     and ".": "Parameter name '<key>' not valid (should be [a-z0-9_.-])."
    void set(const std::string& key, int value);
    void set(const std::string& key, bool value);
    void set(const std::string& key, double value);
    void set(const std::string& key, const std::string& value);
    /// Stores a string.
    /// @throws std::logic_error  `value` is null, whatever the key:
    ///     "basic_string: construction from null is not valid"
    void set(const std::string& key, const char* value);
    void set(const std::string& key, const std::vector<int>& value);
    void set(const std::string& key, const std::vector<double>& value);
    void set(const std::string& key, const std::vector<std::string>& value);
    void set(const std::string& key, const std::vector<bool>& value);

    /// Return a copy of the value under `key` and mark the element consumed. Numbers widen: an int
    /// can be read as a double or a float, an IntVector as a DoubleVector or a vector of floats; a
    /// double is narrowed to the nearest float. Nothing else is converted.
    /// @throws std::out_of_range   there is no such element:
    ///     "BlockConfiguration::getInt failed, the parameter '<key>' does not exist"
    /// @throws std::runtime_error  it has another type:
    ///     "BlockConfiguration::getInt failed, the parameter '<key>' is type: <type>"
    /// Each text names its getter, but getFloatVector() reports another type as
    /// getDoubleVector().
    int getInt(const std::string& key) const;
    bool getBool(const std::string& key) const;
    double getDouble(const std::string& key) const;
    float getFloat(const std::string& key) const;
    std::string getString(const std::string& key) const;
    std::vector<int> getIntVector(const std::string& key) const;
    std::vector<double> getDoubleVector(const std::string& key) const;
    std::vector<float> getFloatVector(const std::string& key) const;
    std::vector<std::string> getStringVector(const std::string& key) const;
    std::vector<bool> getBoolVector(const std::string& key) const;

    /// The same, but `default_value` where there is no such element. A present element of another
    /// type is an error all the same.
    int getInt(const std::string& key, int default_value) const;
    bool getBool(const std::string& key, bool default_value) const;
    double getDouble(const std::string& key, double default_value) const;
    float getFloat(const std::string& key, float default_value) const;
    std::string getString(const std::string& key, const std::string& default_value) const;
    std::vector<int> getIntVector(const std::string& key,
                                  const std::vector<int>& default_value) const;
    std::vector<double> getDoubleVector(const std::string& key,
                                        const std::vector<double>& default_value) const;
    std::vector<float> getFloatVector(const std::string& key,
                                      const std::vector<float>& default_value) const;
    std::vector<std::string> getStringVector(const std::string& key,
                                             const std::vector<std::string>& default_value) const;
    std::vector<bool> getBoolVector(const std::string& key,
                                    const std::vector<bool>& default_value) const;

    /// The type of the element under `key`, as a tag and as the text of to_string(). Reading the
    /// type does not consume the element.
    /// @throws std::invalid_argument  there is no such element: "No such parameter: <key>"
    Type getType(const std::string& key) const;
    std::string getTypeName(const std::string& key) const;

    /// Whether every element is consumed; an empty configuration is.
    bool is_consumed() const;

    /// Removes the element `prefix` and all below it; an empty prefix removes everything.
    ///
    /// The prefix may stand anywhere in the key, as long as the character at the position of its
    /// length is a full stop: deleting `b` removes `x.b` too. Does nothing when nothing matches.
    void delete_element(const std::string& prefix);

    /// Whether both hold the same keys with the same types and values. An int never equals a
    /// double, a NaN not even itself. The marks do not count.
    bool operator==(const BlockConfiguration& other) const;
    bool operator!=(const BlockConfiguration& other) const;

    /// Merges `other` in: its elements, with their marks, replace those of the same key. Lists
    /// merge by index, so longer ones keep their tails.
    /// @throws std::bad_alloc  a part of `other` may be merged by then
    BlockConfiguration& operator+=(const BlockConfiguration& other);
    /// A copy of this configuration with `other` merged in.
    BlockConfiguration operator+(const BlockConfiguration& other) const;

    /// The elements of this configuration, with their marks, that `other` lacks or holds with
    /// another type or value. What only `other` holds is not reported.
    BlockConfiguration diff(const BlockConfiguration& other) const;

    /// Moves every element under `prefix`: `x` becomes `<prefix>.x`, and `.x` for an empty prefix.
    /// The prefix is not checked.
    void rebase(const std::string& prefix);

    /// The subtree `prefix` as a configuration of its own: `a.b.c` of `a` becomes `b.c`, unread. A
    /// full stop at the end of the prefix makes no difference.
    ///
    /// The prefix with its full stop may stand anywhere in the key; what is cut off is always as
    /// many characters from the start of the key.
    BlockConfiguration getSubtree(const std::string& prefix) const;

    /// The children of `prefix`, for a range-based for: see SubtreeIterator.
    SubtreeIterator iterate_subtree(std::string prefix) const;

    /// The elements whose keys begin with `prefix`, all of them for an empty one. No full stop is
    /// needed: `a` also finds `ab.x`. The configuration must outlive the iterator.
    std::unique_ptr<Iterator> iterate(const std::string& prefix) const;

    /// Writes the text form and an empty line to standard output.
    void print() const;

    /// Do nothing, and never touch the stream: configurations are stored with PStore, in the
    /// binary form.
    void load(std::ifstream& in);
    void save(std::ofstream& out);

private:
    friend QUORVAL_EXPORT std::ostream& operator<<(std::ostream& os,
                                                   const BlockConfiguration& config);
    friend QUORVAL_EXPORT POFStream& operator<<(POFStream& out, const BlockConfiguration& config);
    friend QUORVAL_EXPORT std::istream& operator>>(std::istream& in, BlockConfiguration& config);

    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

/// One member of a literal: a key and a value, a subtree or a list of subtrees. Written as a brace
/// pair, `{"gain", 0.5}`, hardly ever by its name. Copies share what they hold; one can be read
/// from several threads.
///
/// The key is a component or a dotted path; it is checked when the literal is stored. A pair of
/// empty braces as a value is refused as ambiguous: write `std::vector<int>{}`.
class QUORVAL_EXPORT BlockConfiguration::KeyValue {
public:
    /// A string in a literal: a string literal or a std::string, and never a pair of pointers, a
    /// number or a list in braces.
    class QUORVAL_EXPORT StringWrapper {
    public:
        /// @throws std::logic_error  `value` is null:
        ///     "basic_string: construction from null is not valid"
        StringWrapper(const char* value);

        // A template, because a list in braces cannot deduce it: otherwise {"a", "b"} would also
        // be the string between two iterators.
        template <class T,
                  std::enable_if_t<std::is_same<std::decay_t<T>, std::string>::value, int> = 0>
        StringWrapper(T&& value) : value_(std::forward<T>(value))
        {
        }

        // Otherwise a literal 0 would be a null pointer.
        StringWrapper(int) = delete;

    private:
        friend class KeyValue;

        std::string value_;
    };

    KeyValue(StringWrapper key, bool value);
    KeyValue(StringWrapper key, int value);
    KeyValue(StringWrapper key, double value);
    KeyValue(StringWrapper key, StringWrapper value);
    /// @throws std::logic_error  `value`, or a string of one of the lists below, is null:
    ///     "basic_string: construction from null is not valid"
    KeyValue(StringWrapper key, const char* value);

    /// A vector, an empty one too. A list of one element is a vector all the same.
    KeyValue(StringWrapper key, std::initializer_list<int> values);
    KeyValue(StringWrapper key, std::initializer_list<double> values);
    KeyValue(StringWrapper key, std::initializer_list<StringWrapper> values);
    KeyValue(StringWrapper key, std::initializer_list<const char*> values);
    // A template, because a list that is not all bool cannot deduce it: otherwise {"a", 1} would be
    // two bools.
    template <class Bool, std::enable_if_t<std::is_same<Bool, bool>::value, int> = 0>
    KeyValue(StringWrapper key, std::initializer_list<Bool> values);

    /// A vector of bool, int, double, std::string or const char*.
    // A template, because a list in braces cannot deduce it: otherwise {{"a", "b"}, {"c"}} would
    // be a vector whose first string lies between two pointers.
    template <
        class T,
        std::enable_if_t<
            std::disjunction<std::is_same<T, bool>, std::is_same<T, int>, std::is_same<T, double>,
                             std::is_same<T, std::string>, std::is_same<T, const char*>>::value,
            int> = 0>
    KeyValue(StringWrapper key, std::vector<T> values);

    /// A subtree: its members are stored under `<key>.`. An empty one leaves no trace.
    KeyValue(StringWrapper key, std::initializer_list<KeyValue> members);

    /// A list of subtrees: the members of the first are stored under `<key>.0.`, those of the next
    /// under `<key>.1.`. An empty one leaves a gap.
    KeyValue(StringWrapper key, std::initializer_list<std::initializer_list<KeyValue>> subtrees);

    // A pointer is not a bool.
    template <class T, std::enable_if_t<!std::is_convertible<T*, const char*>::value, int> = 0>
    KeyValue(StringWrapper key, T* value) = delete;
    template <class T, std::enable_if_t<!std::is_convertible<T*, const char*>::value, int> = 0>
    KeyValue(StringWrapper key, std::initializer_list<T*> values) = delete;
    template <class T, class C>
    KeyValue(StringWrapper key, T C::*value) = delete;

    // Lists of numbers do not nest. Otherwise {{1, 2}} would be a list of strings of odd bytes.
    template <class T, std::enable_if_t<std::is_arithmetic<T>::value, int> = 0>
    KeyValue(StringWrapper key, std::initializer_list<std::initializer_list<T>> lists) = delete;
    KeyValue(StringWrapper key, std::initializer_list<std::initializer_list<int>> lists) = delete;
    KeyValue(StringWrapper key,
             std::initializer_list<std::initializer_list<double>> lists) = delete;

    KeyValue(const KeyValue& other);
    KeyValue& operator=(const KeyValue& other);
    ~KeyValue();

    /// Stores `value` and everything below it into `config`.
    /// @param prefix  empty, or the path above `value` with a "." at its end
    /// @throws std::runtime_error  a full key is not valid, with the text of set(); what was
    ///                             stored before it stays
    static void set_recursively(BlockConfiguration& config, const std::string& prefix,
                                KeyValue value);

private:
    friend class BlockConfiguration;

    struct QUORVAL_HIDDEN Impl;
    std::shared_ptr<const Impl> impl_;  // a copy for a move, so never null
};

/// The children of a prefix P: each different C of the elements whose keys begin with `P.C.`, in
/// the order of their bytes, so `10` comes before `2`. An element `P.x` itself is no child.
///
/// A range for a range-based for, whose entries are views: see Accessor. It refers to the
/// configuration, which must outlive it. During a walk elements may be read and added; the element
/// that the walk stands on, the first of the current child, must not be removed.
class QUORVAL_EXPORT BlockConfiguration::SubtreeIterator {
public:
    /// A view of one child: reads the fields of `P.C` by their own names. It refers to the
    /// configuration, which must outlive it.
    class QUORVAL_EXPORT Accessor {
    public:
        /// @param path           the full path of the child, `P.C`
        /// @param prefix_length  the length of `P.`
        Accessor(const BlockConfiguration& config, std::string path, unsigned long prefix_length);

        /// The path of the child, `P.C`.
        std::string full_key() const;
        /// The walked prefix with its full stop, `P.`.
        std::string prefix() const;
        /// The component of the child, `C`.
        std::string key() const;
        /// The component as a decimal number; what follows the digits is ignored. -1 when it does
        /// not begin with a number or the number does not fit.
        int index() const;
        /// The full key of a field of the child, `P.C.<key>`.
        std::string path(const std::string& key) const;

        /// The getters of the configuration for a field of the child, with their exceptions.
        int getInt(const std::string& key) const;
        bool getBool(const std::string& key) const;
        double getDouble(const std::string& key) const;
        float getFloat(const std::string& key) const;
        std::string getString(const std::string& key) const;
        std::vector<int> getIntVector(const std::string& key) const;
        std::vector<double> getDoubleVector(const std::string& key) const;
        std::vector<float> getFloatVector(const std::string& key) const;
        std::vector<std::string> getStringVector(const std::string& key) const;
        std::vector<bool> getBoolVector(const std::string& key) const;

        int getInt(const std::string& key, int default_value) const;
        bool getBool(const std::string& key, bool default_value) const;
        double getDouble(const std::string& key, double default_value) const;
        float getFloat(const std::string& key, float default_value) const;
        std::string getString(const std::string& key, const std::string& default_value) const;
        std::vector<int> getIntVector(const std::string& key,
                                      const std::vector<int>& default_value) const;
        std::vector<double> getDoubleVector(const std::string& key,
                                            const std::vector<double>& default_value) const;
        std::vector<float> getFloatVector(const std::string& key,
                                          const std::vector<float>& default_value) const;
        std::vector<std::string> getStringVector(
            const std::string& key, const std::vector<std::string>& default_value) const;
        std::vector<bool> getBoolVector(const std::string& key,
                                        const std::vector<bool>& default_value) const;

        Type getType(const std::string& key) const;

        /// Take what lies below a field of the child apart in turn.
        BlockConfiguration getSubtree(const std::string& key) const;
        SubtreeIterator iterate_subtree(const std::string& key) const;

    private:
        const BlockConfiguration* config_;  // never null
        std::string path_;
        unsigned long prefix_length_;
    };

    class Iterator;

    /// The cursor of a walk. Move-only; a moved-from cursor is at the end.
    class QUORVAL_EXPORT InternalIterator {
    public:
        /// A cursor at the end.
        InternalIterator();
        /// A cursor on the first child of `prefix`, or at the end when there is none.
        InternalIterator(const BlockConfiguration& config, std::string prefix);
        InternalIterator(InternalIterator&& other) noexcept;
        InternalIterator& operator=(InternalIterator&& other) noexcept;
        InternalIterator(const InternalIterator&) = delete;
        InternalIterator& operator=(const InternalIterator&) = delete;
        ~InternalIterator();

        /// Moves to the next child; does nothing at the end.
        void advance();
        bool is_end() const;
        /// The configuration that is walked.
        /// @throws std::runtime_error  the cursor walks none (any more): "Internal error"
        const BlockConfiguration& config() const;
        /// The full path of the child.
        /// @throws std::runtime_error  the cursor is at the end: "Internal error"
        std::string current_path() const;

    private:
        friend class Iterator;

        struct QUORVAL_HIDDEN Impl;
        std::unique_ptr<Impl> impl_;
    };

    /// An input iterator around a cursor. Move-only.
    class QUORVAL_EXPORT Iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Accessor;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Accessor;

        explicit Iterator(InternalIterator cursor);
        Iterator(Iterator&& other) noexcept;
        Iterator& operator=(Iterator&& other) noexcept;
        Iterator(const Iterator&) = delete;
        Iterator& operator=(const Iterator&) = delete;
        ~Iterator();

        /// The current child.
        /// @throws std::runtime_error  the walk is at its end: "Internal error"
        Accessor operator*() const;
        /// Moves to the next child; does nothing at the end.
        Iterator& operator++();
        /// Whether both stand on the same element, or both are at the end.
        bool operator==(const Iterator& other) const;
        bool operator!=(const Iterator& other) const;

    private:
        InternalIterator cursor_;
    };

    SubtreeIterator(const BlockConfiguration& config, std::string prefix);

    Iterator begin() const;
    Iterator end() const;

private:
    const BlockConfiguration* config_;  // never null
    std::string prefix_;
};

/// A cursor over elements, in the order of their keys. It refers to the configuration, which must
/// outlive it. During a walk elements may be read, set and added; the current one must not be
/// removed. What the operations return by reference lives as long as the element keeps its value.
///
/// Other than those of the configuration, these getters convert no types, except that the float
/// ones narrow, and they mark the element consumed before they check its type.
class QUORVAL_EXPORT BlockConfiguration::Iterator {
public:
    Iterator(const Iterator&) = delete;
    Iterator& operator=(const Iterator&) = delete;
    virtual ~Iterator();

    /// Whether the walk is over.
    virtual bool is_end() = 0;
    /// Moves to the next element.
    /// @throws std::runtime_error  the walk is over: "Iteration beyond end of the sequence"
    virtual void advance() = 0;

    /// The full key of the current element.
    /// @throws std::runtime_error  the walk is over: "Iteration beyond end of the sequence"
    virtual const std::string& key() = 0;

    /// The value of the current element. getFloat() reads a double, getFloatVector() a
    /// DoubleVector.
    /// @throws std::bad_variant_access  it has another type: "std::get: wrong index for variant";
    ///                                  it is consumed all the same
    /// @throws std::runtime_error       the walk is over: "Iteration beyond end of the sequence"
    virtual int getInt() = 0;
    virtual bool getBool() = 0;
    virtual double getDouble() = 0;
    virtual float getFloat() = 0;
    virtual const std::string& getString() = 0;
    virtual const std::vector<int>& getIntVector() = 0;
    virtual const std::vector<double>& getDoubleVector() = 0;
    virtual std::vector<float> getFloatVector() = 0;
    virtual const std::vector<std::string>& getStringVector() = 0;
    virtual const std::vector<bool>& getBoolVector() = 0;

protected:
    Iterator();
};

/// The name of a type: "int", "bool", "double", "string", "IntVector", "DoubleVector",
/// "StringVector", "BoolVector"; "??" for any other value.
QUORVAL_EXPORT std::string to_string(BlockConfiguration::Type type);

/// Writes the text form, for people: "BlockConfiguration:", then a line `<key> (<type>) = <value>`
/// for each element. Numbers follow the flags of the stream, strings are written as they are, and
/// the stream is flushed after each line. Consumes nothing. There is no reader for this form.
QUORVAL_EXPORT std::ostream& operator<<(std::ostream& os, const BlockConfiguration& config);

/// Writes the binary form of all elements, as PStore keeps it. The marks are not part of it.
/// @throws cereal::Exception  the stream's buffer takes less than it is given, a
///     std::runtime_error: "Failed to write <n> bytes to output stream! Wrote <n>"
QUORVAL_EXPORT POFStream& operator<<(POFStream& out, const BlockConfiguration& config);

/// Reads the binary form up to the end of the input and stores its elements over those of
/// `config`, unread. Elements that were stored before an exception stay. An end of the input
/// between two elements, or inside the key or the type name of one, ends the reading without a
/// report. No more memory is taken than a small multiple of what the input really holds.
/// @throws std::runtime_error  the stream is not good, at the start or after an element: "Stream
///     entered a bad state"; a type is unknown: "The parameter <key> has an unknown type: <type>";
///     a key is not valid, with the text of BlockConfiguration::set()
/// @throws cereal::Exception   the input ends inside a value, a std::runtime_error: "Failed to
///     read <n> bytes from input stream! Read <n>"
QUORVAL_EXPORT std::istream& operator>>(std::istream& in, BlockConfiguration& config);

}  // namespace Quorval
