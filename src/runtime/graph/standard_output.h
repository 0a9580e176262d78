// Keeping standard output free of what blocks print.
#pragma once

namespace Quorval::runtime {

/// While it lives, what the process writes to standard output goes to standard error.
class StandardOutputScope {
public:
    StandardOutputScope();
    StandardOutputScope(const StandardOutputScope&) = delete;
    StandardOutputScope& operator=(const StandardOutputScope&) = delete;
    ~StandardOutputScope();

private:
    int saved_;
};

}  // namespace Quorval::runtime
