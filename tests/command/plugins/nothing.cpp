// No types.
#include <quorval/pluginloader.h>

int lib_register_cpp(Quorval::IRegistry& /*registry*/)
{
    return 0;
}
