// libmosquitto, loaded when the first of these functions is called, with the library of TLS that it
// uses. Each hands its call on.

#include "lazy/library.h"

#include <mosquitto.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <type_traits>

namespace {

const Quorval::runtime::Library& libmosquitto()
{
    static const Quorval::runtime::Library kLoaded("libmosquitto.so.1");
    return kLoaded;
}

/// Calls the function of the library that has the name and the type of this one.
template <auto Function, class... Arguments>
auto call(const char* name, Arguments... arguments)
{
    static auto* const kFound =
        libmosquitto().find<std::remove_pointer_t<decltype(Function)>>(name);
    return kFound(arguments...);
}

}  // namespace

extern "C" {

int mosquitto_lib_init()
{
    return call<mosquitto_lib_init>("mosquitto_lib_init");
}

mosquitto* mosquitto_new(const char* id, bool clean_session, void* obj)
{
    return call<mosquitto_new>("mosquitto_new", id, clean_session, obj);
}

void mosquitto_destroy(mosquitto* mosq)
{
    return call<mosquitto_destroy>("mosquitto_destroy", mosq);
}

int mosquitto_int_option(mosquitto* mosq, mosq_opt_t option, int value)
{
    return call<mosquitto_int_option>("mosquitto_int_option", mosq, option, value);
}

int mosquitto_will_set_v5(mosquitto* mosq, const char* topic, int payloadlen, const void* payload,
                          int qos, bool retain, mosquitto_property* properties)
{
    return call<mosquitto_will_set_v5>("mosquitto_will_set_v5", mosq, topic, payloadlen, payload,
                                       qos, retain, properties);
}

int mosquitto_tls_set(mosquitto* mosq, const char* cafile, const char* capath, const char* certfile,
                      const char* keyfile,
                      int (*pw_callback)(char* buf, int size, int rwflag, void* userdata))
{
    return call<mosquitto_tls_set>("mosquitto_tls_set", mosq, cafile, capath, certfile, keyfile,
                                   pw_callback);
}

int mosquitto_username_pw_set(mosquitto* mosq, const char* username, const char* password)
{
    return call<mosquitto_username_pw_set>("mosquitto_username_pw_set", mosq, username, password);
}

void mosquitto_connect_v5_callback_set(mosquitto* mosq,
                                       void (*on_connect)(mosquitto*, void*, int, int,
                                                          const mosquitto_property* props))
{
    return call<mosquitto_connect_v5_callback_set>("mosquitto_connect_v5_callback_set", mosq,
                                                   on_connect);
}

void mosquitto_log_callback_set(mosquitto* mosq,
                                void (*on_log)(mosquitto*, void*, int, const char*))
{
    return call<mosquitto_log_callback_set>("mosquitto_log_callback_set", mosq, on_log);
}

void mosquitto_disconnect_v5_callback_set(mosquitto* mosq,
                                          void (*on_disconnect)(mosquitto*, void*, int,
                                                                const mosquitto_property* props))
{
    return call<mosquitto_disconnect_v5_callback_set>("mosquitto_disconnect_v5_callback_set", mosq,
                                                      on_disconnect);
}

void mosquitto_publish_v5_callback_set(mosquitto* mosq,
                                       void (*on_publish)(mosquitto*, void*, int, int,
                                                          const mosquitto_property* props))
{
    return call<mosquitto_publish_v5_callback_set>("mosquitto_publish_v5_callback_set", mosq,
                                                   on_publish);
}

void mosquitto_subscribe_v5_callback_set(mosquitto* mosq,
                                         void (*on_subscribe)(mosquitto*, void*, int, int,
                                                              const int*,
                                                              const mosquitto_property* props))
{
    return call<mosquitto_subscribe_v5_callback_set>("mosquitto_subscribe_v5_callback_set", mosq,
                                                     on_subscribe);
}

void mosquitto_message_v5_callback_set(mosquitto* mosq,
                                       void (*on_message)(mosquitto*, void*,
                                                          const mosquitto_message*,
                                                          const mosquitto_property* props))
{
    return call<mosquitto_message_v5_callback_set>("mosquitto_message_v5_callback_set", mosq,
                                                   on_message);
}

int mosquitto_connect_bind_v5(mosquitto* mosq, const char* host, int port, int keepalive,
                              const char* bind_address, const mosquitto_property* properties)
{
    return call<mosquitto_connect_bind_v5>("mosquitto_connect_bind_v5", mosq, host, port, keepalive,
                                           bind_address, properties);
}

int mosquitto_connect_bind_async(mosquitto* mosq, const char* host, int port, int keepalive,
                                 const char* bind_address)
{
    return call<mosquitto_connect_bind_async>("mosquitto_connect_bind_async", mosq, host, port,
                                              keepalive, bind_address);
}

int mosquitto_disconnect_v5(mosquitto* mosq, int reason_code, const mosquitto_property* properties)
{
    return call<mosquitto_disconnect_v5>("mosquitto_disconnect_v5", mosq, reason_code, properties);
}

int mosquitto_loop_read(mosquitto* mosq, int max_packets)
{
    return call<mosquitto_loop_read>("mosquitto_loop_read", mosq, max_packets);
}

int mosquitto_loop_write(mosquitto* mosq, int max_packets)
{
    return call<mosquitto_loop_write>("mosquitto_loop_write", mosq, max_packets);
}

int mosquitto_loop_misc(mosquitto* mosq)
{
    return call<mosquitto_loop_misc>("mosquitto_loop_misc", mosq);
}

void* mosquitto_ssl_get(mosquitto* mosq)
{
    return call<mosquitto_ssl_get>("mosquitto_ssl_get", mosq);
}

int mosquitto_socket(mosquitto* mosq)
{
    return call<mosquitto_socket>("mosquitto_socket", mosq);
}

bool mosquitto_want_write(mosquitto* mosq)
{
    return call<mosquitto_want_write>("mosquitto_want_write", mosq);
}

int mosquitto_publish_v5(mosquitto* mosq, int* mid, const char* topic, int payloadlen,
                         const void* payload, int qos, bool retain,
                         const mosquitto_property* properties)
{
    return call<mosquitto_publish_v5>("mosquitto_publish_v5", mosq, mid, topic, payloadlen, payload,
                                      qos, retain, properties);
}

int mosquitto_subscribe_v5(mosquitto* mosq, int* mid, const char* sub, int qos, int options,
                           const mosquitto_property* properties)
{
    return call<mosquitto_subscribe_v5>("mosquitto_subscribe_v5", mosq, mid, sub, qos, options,
                                        properties);
}

int mosquitto_property_add_int32(mosquitto_property** proplist, int identifier, uint32_t value)
{
    return call<mosquitto_property_add_int32>("mosquitto_property_add_int32", proplist, identifier,
                                              value);
}

int mosquitto_property_add_string_pair(mosquitto_property** proplist, int identifier,
                                       const char* name, const char* value)
{
    return call<mosquitto_property_add_string_pair>("mosquitto_property_add_string_pair", proplist,
                                                    identifier, name, value);
}

const mosquitto_property* mosquitto_property_read_int32(const mosquitto_property* proplist,
                                                        int identifier, uint32_t* value,
                                                        bool skip_first)
{
    return call<mosquitto_property_read_int32>("mosquitto_property_read_int32", proplist,
                                               identifier, value, skip_first);
}

const mosquitto_property* mosquitto_property_read_string_pair(const mosquitto_property* proplist,
                                                              int identifier, char** name,
                                                              char** value, bool skip_first)
{
    return call<mosquitto_property_read_string_pair>("mosquitto_property_read_string_pair",
                                                     proplist, identifier, name, value, skip_first);
}

void mosquitto_property_free_all(mosquitto_property** properties)
{
    return call<mosquitto_property_free_all>("mosquitto_property_free_all", properties);
}

const char* mosquitto_strerror(int mosq_errno)
{
    return call<mosquitto_strerror>("mosquitto_strerror", mosq_errno);
}

const char* mosquitto_reason_string(int reason_code)
{
    return call<mosquitto_reason_string>("mosquitto_reason_string", reason_code);
}

// --- TLS ---

BIO* SSL_get_wbio(const SSL* s)
{
    return call<SSL_get_wbio>("SSL_get_wbio", s);
}

void BIO_set_callback_ex(BIO* b, BIO_callback_fn_ex callback)
{
    return call<BIO_set_callback_ex>("BIO_set_callback_ex", b, callback);
}

long BIO_ctrl(BIO* bp, int cmd, long larg, void* parg)
{
    return call<BIO_ctrl>("BIO_ctrl", bp, cmd, larg, parg);
}

void BIO_set_flags(BIO* b, int flags)
{
    return call<BIO_set_flags>("BIO_set_flags", b, flags);
}

}  // extern "C"
