// Reading the configuration of a block, and saying clearly what is wrong with it.
#pragma once

#include <quorval/config.h>

#include <string>
#include <vector>

namespace sound {

/// The settings of one block. Every operation reads one key, so that the configuration knows which
/// keys nobody asked for, and gives `present` where there is no such key.
///
/// A value that is not allowed is a std::invalid_argument that names the block, the key, the value
/// and what is allowed: "gain: factor (double) = 5000 is refused, allowed is a number from -1000
/// to 1000".
class Settings {
public:
    /// @param block   the name for messages
    /// @param config  must outlive the settings
    Settings(std::string block, const Quorval::BlockConfiguration& config);

    bool get_bool(const std::string& key, bool present) const;
    int get_int(const std::string& key, int present, int least, int most) const;
    double get_number(const std::string& key, double present, double least, double most) const;
    /// Of one to `most` finite numbers.
    std::vector<double> get_numbers(const std::string& key, const std::vector<double>& present,
                                    std::size_t most) const;
    /// One of `choices`.
    std::string get_choice(const std::string& key, const std::string& present,
                           const std::vector<std::string>& choices) const;
    /// A name that must be there.
    std::string get_path(const std::string& key) const;

    /// Refuses a new value for a key that counts only before the start.
    void refuse_change(const std::string& key) const;

    /// Logs a warning when a key was read by nobody, a misspelt one perhaps.
    void warn_about_unknown_keys(const std::string& known) const;

    [[noreturn]] void refuse(const std::string& key, const std::string& allowed) const;

private:
    std::string block_;
    const Quorval::BlockConfiguration& config_;
};

}  // namespace sound
