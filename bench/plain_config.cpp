#include "plain_config.h"

#include <iterator>

namespace quorval_bench {

namespace {

class Cursor final : public PlainConfig::Iterator {
public:
    Cursor(PlainMap::const_iterator at, PlainMap::const_iterator end) : at_(at), end_(end) {}

    bool is_end() override { return at_ == end_; }
    void advance() override { ++at_; }
    const std::string& key() override { return at_->first; }
    int getInt() override { return std::get<int>(at_->second); }
    bool getBool() override { return std::get<bool>(at_->second); }
    double getDouble() override { return std::get<double>(at_->second); }
    const std::string& getString() override { return std::get<std::string>(at_->second); }
    const std::vector<int>& getIntVector() override
    {
        return std::get<std::vector<int>>(at_->second);
    }
    const std::vector<double>& getDoubleVector() override
    {
        return std::get<std::vector<double>>(at_->second);
    }
    const std::vector<std::string>& getStringVector() override
    {
        return std::get<std::vector<std::string>>(at_->second);
    }
    const std::vector<bool>& getBoolVector() override
    {
        return std::get<std::vector<bool>>(at_->second);
    }

private:
    PlainMap::const_iterator at_;
    PlainMap::const_iterator end_;
};

}  // namespace

PlainConfig::Iterator::~Iterator() = default;

PlainConfig::PlainConfig() = default;
PlainConfig::PlainConfig(std::initializer_list<KeyValue> values) : elements_(values) {}
PlainConfig::PlainConfig(const PlainConfig& other) = default;
PlainConfig::PlainConfig(PlainConfig&& other) noexcept = default;
PlainConfig& PlainConfig::operator=(const PlainConfig& other) = default;
PlainConfig& PlainConfig::operator=(PlainConfig&& other) noexcept = default;
PlainConfig::~PlainConfig() = default;

template <class T>
void PlainConfig::put(const std::string& key, const T& value)
{
    elements_.insert_or_assign(key, value);
}

template <class T>
const T& PlainConfig::at(const std::string& key) const
{
    return std::get<T>(elements_.at(key));
}

// clang-format off
void PlainConfig::set(const std::string& key, int value) { put(key, value); }
void PlainConfig::set(const std::string& key, bool value) { put(key, value); }
void PlainConfig::set(const std::string& key, double value) { put(key, value); }
void PlainConfig::set(const std::string& key, const std::string& value) { put(key, value); }
void PlainConfig::set(const std::string& key, const std::vector<int>& value) { put(key, value); }
void PlainConfig::set(const std::string& key, const std::vector<double>& value) { put(key, value); }
void PlainConfig::set(const std::string& key, const std::vector<std::string>& value) { put(key, value); }
void PlainConfig::set(const std::string& key, const std::vector<bool>& value) { put(key, value); }

int PlainConfig::getInt(const std::string& key) const { return at<int>(key); }
bool PlainConfig::getBool(const std::string& key) const { return at<bool>(key); }
double PlainConfig::getDouble(const std::string& key) const { return at<double>(key); }
std::string PlainConfig::getString(const std::string& key) const { return at<std::string>(key); }
std::vector<int> PlainConfig::getIntVector(const std::string& key) const { return at<std::vector<int>>(key); }
std::vector<double> PlainConfig::getDoubleVector(const std::string& key) const { return at<std::vector<double>>(key); }
std::vector<std::string> PlainConfig::getStringVector(const std::string& key) const { return at<std::vector<std::string>>(key); }
std::vector<bool> PlainConfig::getBoolVector(const std::string& key) const { return at<std::vector<bool>>(key); }
// clang-format on

std::unique_ptr<PlainConfig::Iterator> PlainConfig::iterate(const std::string& prefix) const
{
    auto end = elements_.end();
    if (!prefix.empty()) {
        std::string behind = prefix;
        ++behind.back();
        end = elements_.lower_bound(behind);
    }
    return std::make_unique<Cursor>(elements_.lower_bound(prefix), end);
}

PlainConfig PlainConfig::getSubtree(const std::string& prefix) const
{
    const std::string path = prefix + ".";
    PlainConfig result;
    for (const auto& [key, value] : elements_) {
        if (key.find(path) != std::string::npos) {
            result.elements_.insert_or_assign(key.substr(path.size()), value);
        }
    }
    return result;
}

void PlainConfig::delete_element(const std::string& prefix)
{
    for (auto at = elements_.begin(); at != elements_.end();) {
        const std::string& key = at->first;
        const bool goes = key.find(prefix) != std::string::npos &&
                          (key.size() == prefix.size() || key[prefix.size()] == '.');
        at = goes ? elements_.erase(at) : std::next(at);
    }
}

}  // namespace quorval_bench
