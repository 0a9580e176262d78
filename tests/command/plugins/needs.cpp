// Needs a function that nobody has.
#include <quorval/pluginloader.h>

extern "C" void quorval_test_nobody_has_this();

int lib_register_cpp(Quorval::IRegistry& /*registry*/)
{
    quorval_test_nobody_has_this();
    return 0;
}
