// Never comes back while it is loaded.
#include <quorval/pluginloader.h>

#include <unistd.h>

int lib_register_cpp(Quorval::IRegistry& /*registry*/)
{
    for (;;) {
        ::pause();
    }
}
