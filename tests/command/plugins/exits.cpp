// Ends the process while it is loaded.
#include <quorval/pluginloader.h>

#include <cstdlib>

int lib_register_cpp(Quorval::IRegistry& /*registry*/)
{
    std::exit(0);
}
