#include "link/tls.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>

namespace Quorval::runtime {

namespace {

/// Called before and after each operation on the socket.
long put_off(BIO* bio, int operation, const char* /*bytes*/, std::size_t /*size*/, int /*number*/,
             long /*argument*/, int result, std::size_t* /*processed*/)
{
    if (operation == (BIO_CB_WRITE | BIO_CB_RETURN) && result <= 0) {
        const int error = errno;
        const auto fd = static_cast<int>(BIO_get_fd(bio, nullptr));
        char next = 0;
        const bool has_more = ::recv(fd, &next, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
        if (has_more) {
            BIO_set_retry_write(bio);
        }
        errno = has_more ? EAGAIN : error;
    }
    return result;
}

}  // namespace

void read_last_words(mosquitto* client, bool wants)
{
    if (const auto* tls = static_cast<const SSL*>(::mosquitto_ssl_get(client))) {
        ::BIO_set_callback_ex(::SSL_get_wbio(tls), wants ? put_off : nullptr);
    }
}

}  // namespace Quorval::runtime
