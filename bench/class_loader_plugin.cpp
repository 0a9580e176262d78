#include "class_loader_member.h"

#include <class_loader/register_macro.hpp>

namespace quorval_bench {

class ClassLoaderRelay : public ClassLoaderMember {
public:
    void set_name(const std::string& name) override { name_ = name; }
    const std::string& get_name() const override { return name_; }

private:
    std::string name_;
};

}  // namespace quorval_bench

CLASS_LOADER_REGISTER_CLASS(quorval_bench::ClassLoaderRelay, quorval_bench::ClassLoaderMember)
