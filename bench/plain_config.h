// What one would write in place of a configuration: a map behind the same calls.
#pragma once

#include "workload.h"

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace quorval_bench {

/// A std::map with the calls of BlockConfiguration that the benchmarks make, each of them a call
/// out of line. Checks no keys and keeps no marks.
class PlainConfig {
public:
    using KeyValue = std::pair<const std::string, PlainValue>;
    class Iterator;

    PlainConfig();
    PlainConfig(std::initializer_list<KeyValue> values);
    PlainConfig(const PlainConfig& other);
    PlainConfig(PlainConfig&& other) noexcept;
    PlainConfig& operator=(const PlainConfig& other);
    PlainConfig& operator=(PlainConfig&& other) noexcept;
    ~PlainConfig();

    void set(const std::string& key, int value);
    void set(const std::string& key, bool value);
    void set(const std::string& key, double value);
    void set(const std::string& key, const std::string& value);
    void set(const std::string& key, const std::vector<int>& value);
    void set(const std::string& key, const std::vector<double>& value);
    void set(const std::string& key, const std::vector<std::string>& value);
    void set(const std::string& key, const std::vector<bool>& value);

    int getInt(const std::string& key) const;
    bool getBool(const std::string& key) const;
    double getDouble(const std::string& key) const;
    std::string getString(const std::string& key) const;
    std::vector<int> getIntVector(const std::string& key) const;
    std::vector<double> getDoubleVector(const std::string& key) const;
    std::vector<std::string> getStringVector(const std::string& key) const;
    std::vector<bool> getBoolVector(const std::string& key) const;

    std::unique_ptr<Iterator> iterate(const std::string& prefix) const;
    PlainConfig getSubtree(const std::string& prefix) const;
    void delete_element(const std::string& prefix);

private:
    template <class T>
    void put(const std::string& key, const T& value);
    template <class T>
    const T& at(const std::string& key) const;

    PlainMap elements_;
};

class PlainConfig::Iterator {
public:
    virtual ~Iterator();
    virtual bool is_end() = 0;
    virtual void advance() = 0;
    virtual const std::string& key() = 0;
    virtual int getInt() = 0;
    virtual bool getBool() = 0;
    virtual double getDouble() = 0;
    virtual const std::string& getString() = 0;
    virtual const std::vector<int>& getIntVector() = 0;
    virtual const std::vector<double>& getDoubleVector() = 0;
    virtual const std::vector<std::string>& getStringVector() = 0;
    virtual const std::vector<bool>& getBoolVector() = 0;
};

}  // namespace quorval_bench
