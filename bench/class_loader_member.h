// What the plug-in for class_loader offers: an object with a name, as a block has one.
#pragma once

#include <string>

namespace quorval_bench {

class ClassLoaderMember {
public:
    virtual ~ClassLoaderMember() = default;
    virtual void set_name(const std::string& name) = 0;
    virtual const std::string& get_name() const = 0;
};

}  // namespace quorval_bench
