// libsystemd, loaded when the first of these functions is called. Each hands its call on. What
// takes a variable number of values hands it on to its sibling that takes a list of them.

// What the header adds otherwise would be the place of its call.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include "lazy/library.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <systemd/sd-journal.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace {

const Quorval::runtime::Library& libsystemd()
{
    static const Quorval::runtime::Library kLoaded("libsystemd.so.0");
    return kLoaded;
}

/// Calls the function of the library that has the name and the type of the one given.
template <auto Function, class... Arguments>
auto call(const char* name, Arguments... arguments)
{
    static auto* const kFound = libsystemd().find<std::remove_pointer_t<decltype(Function)>>(name);
    return kFound(arguments...);
}

}  // namespace

// Its headers have names of parameters of their own, and variable numbers of values.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
// NOLINTBEGIN(cert-dcl50-cpp,cppcoreguidelines-pro-type-vararg,hicpp-vararg)
// NOLINTBEGIN(cppcoreguidelines-pro-bounds-array-to-pointer-decay,hicpp-no-array-decay)

extern "C" {

// Tables of methods refer to it, so that the library knows what their entries hold: the number is
// the version from which on they also hold the names of parameters.
const unsigned sd_bus_object_vtable_format = 242;

int sd_bus_add_object_vtable(sd_bus* bus, sd_bus_slot** slot, const char* path,
                             const char* interface, const sd_bus_vtable* vtable, void* userdata)
{
    return call<sd_bus_add_object_vtable>("sd_bus_add_object_vtable", bus, slot, path, interface,
                                          vtable, userdata);
}

int sd_bus_attach_event(sd_bus* bus, sd_event* e, int priority)
{
    return call<sd_bus_attach_event>("sd_bus_attach_event", bus, e, priority);
}

int sd_bus_call(sd_bus* bus, sd_bus_message* m, uint64_t usec, sd_bus_error* ret_error,
                sd_bus_message** reply)
{
    return call<sd_bus_call>("sd_bus_call", bus, m, usec, ret_error, reply);
}

int sd_bus_creds_get_comm(sd_bus_creds* c, const char** comm)
{
    return call<sd_bus_creds_get_comm>("sd_bus_creds_get_comm", c, comm);
}

int sd_bus_creds_get_euid(sd_bus_creds* c, uid_t* euid)
{
    return call<sd_bus_creds_get_euid>("sd_bus_creds_get_euid", c, euid);
}

int sd_bus_creds_get_pid(sd_bus_creds* c, pid_t* pid)
{
    return call<sd_bus_creds_get_pid>("sd_bus_creds_get_pid", c, pid);
}

sd_bus_creds* sd_bus_creds_unref(sd_bus_creds* c)
{
    return call<sd_bus_creds_unref>("sd_bus_creds_unref", c);
}

int sd_bus_detach_event(sd_bus* bus)
{
    return call<sd_bus_detach_event>("sd_bus_detach_event", bus);
}

void sd_bus_error_free(sd_bus_error* e)
{
    return call<sd_bus_error_free>("sd_bus_error_free", e);
}

int sd_bus_error_has_name(const sd_bus_error* e, const char* name)
{
    return call<sd_bus_error_has_name>("sd_bus_error_has_name", e, name);
}

int sd_bus_error_set(sd_bus_error* e, const char* name, const char* message)
{
    return call<sd_bus_error_set>("sd_bus_error_set", e, name, message);
}

sd_bus* sd_bus_flush_close_unref(sd_bus* bus)
{
    return call<sd_bus_flush_close_unref>("sd_bus_flush_close_unref", bus);
}

int sd_bus_get_name_creds(sd_bus* bus, const char* name, uint64_t mask, sd_bus_creds** creds)
{
    return call<sd_bus_get_name_creds>("sd_bus_get_name_creds", bus, name, mask, creds);
}

int sd_bus_get_property_string(sd_bus* bus, const char* destination, const char* path,
                               const char* interface, const char* member, sd_bus_error* ret_error,
                               char** ret)
{
    return call<sd_bus_get_property_string>("sd_bus_get_property_string", bus, destination, path,
                                            interface, member, ret_error, ret);
}

int sd_bus_get_property_trivial(sd_bus* bus, const char* destination, const char* path,
                                const char* interface, const char* member, sd_bus_error* ret_error,
                                char type, void* ret_ptr)
{
    return call<sd_bus_get_property_trivial>("sd_bus_get_property_trivial", bus, destination, path,
                                             interface, member, ret_error, type, ret_ptr);
}

int sd_bus_list_names(sd_bus* bus, char*** acquired, char*** activatable)
{
    return call<sd_bus_list_names>("sd_bus_list_names", bus, acquired, activatable);
}

int sd_bus_match_signal(sd_bus* bus, sd_bus_slot** ret, const char* sender, const char* path,
                        const char* interface, const char* member,
                        sd_bus_message_handler_t callback, void* userdata)
{
    return call<sd_bus_match_signal>("sd_bus_match_signal", bus, ret, sender, path, interface,
                                     member, callback, userdata);
}

int sd_bus_message_append(sd_bus_message* m, const char* types, ...)
{
    std::va_list values;
    va_start(values, types);
    const int result = call<sd_bus_message_appendv>("sd_bus_message_appendv", m, types, values);
    va_end(values);
    return result;
}

int sd_bus_message_append_basic(sd_bus_message* m, char type, const void* p)
{
    return call<sd_bus_message_append_basic>("sd_bus_message_append_basic", m, type, p);
}

int sd_bus_message_append_strv(sd_bus_message* m, char** l)
{
    return call<sd_bus_message_append_strv>("sd_bus_message_append_strv", m, l);
}

int sd_bus_message_close_container(sd_bus_message* m)
{
    return call<sd_bus_message_close_container>("sd_bus_message_close_container", m);
}

int sd_bus_message_enter_container(sd_bus_message* m, char type, const char* contents)
{
    return call<sd_bus_message_enter_container>("sd_bus_message_enter_container", m, type,
                                                contents);
}

int sd_bus_message_exit_container(sd_bus_message* m)
{
    return call<sd_bus_message_exit_container>("sd_bus_message_exit_container", m);
}

sd_bus* sd_bus_message_get_bus(sd_bus_message* m)
{
    return call<sd_bus_message_get_bus>("sd_bus_message_get_bus", m);
}

const char* sd_bus_message_get_sender(sd_bus_message* m)
{
    return call<sd_bus_message_get_sender>("sd_bus_message_get_sender", m);
}

int sd_bus_message_is_method_error(sd_bus_message* m, const char* name)
{
    return call<sd_bus_message_is_method_error>("sd_bus_message_is_method_error", m, name);
}

int sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** m, const char* destination,
                                   const char* path, const char* interface, const char* member)
{
    return call<sd_bus_message_new_method_call>("sd_bus_message_new_method_call", bus, m,
                                                destination, path, interface, member);
}

int sd_bus_message_new_method_return(sd_bus_message* to, sd_bus_message** m)
{
    return call<sd_bus_message_new_method_return>("sd_bus_message_new_method_return", to, m);
}

int sd_bus_message_new_signal(sd_bus* bus, sd_bus_message** m, const char* path,
                              const char* interface, const char* member)
{
    return call<sd_bus_message_new_signal>("sd_bus_message_new_signal", bus, m, path, interface,
                                           member);
}

int sd_bus_message_open_container(sd_bus_message* m, char type, const char* contents)
{
    return call<sd_bus_message_open_container>("sd_bus_message_open_container", m, type, contents);
}

int sd_bus_message_read(sd_bus_message* m, const char* types, ...)
{
    std::va_list values;
    va_start(values, types);
    const int result = call<sd_bus_message_readv>("sd_bus_message_readv", m, types, values);
    va_end(values);
    return result;
}

int sd_bus_message_read_basic(sd_bus_message* m, char type, void* p)
{
    return call<sd_bus_message_read_basic>("sd_bus_message_read_basic", m, type, p);
}

sd_bus_message* sd_bus_message_unref(sd_bus_message* m)
{
    return call<sd_bus_message_unref>("sd_bus_message_unref", m);
}

int sd_bus_open_system(sd_bus** ret)
{
    return call<sd_bus_open_system>("sd_bus_open_system", ret);
}

int sd_bus_open_user(sd_bus** ret)
{
    return call<sd_bus_open_user>("sd_bus_open_user", ret);
}

int sd_bus_query_sender_creds(sd_bus_message* m, uint64_t mask, sd_bus_creds** creds)
{
    return call<sd_bus_query_sender_creds>("sd_bus_query_sender_creds", m, mask, creds);
}

int sd_bus_reply_method_return(sd_bus_message* to, const char* types, ...)
{
    std::va_list values;
    va_start(values, types);
    const int result =
        call<sd_bus_reply_method_returnv>("sd_bus_reply_method_returnv", to, types, values);
    va_end(values);
    return result;
}

int sd_bus_request_name(sd_bus* bus, const char* name, uint64_t flags)
{
    return call<sd_bus_request_name>("sd_bus_request_name", bus, name, flags);
}

int sd_bus_request_name_async(sd_bus* bus, sd_bus_slot** ret_slot, const char* name, uint64_t flags,
                              sd_bus_message_handler_t callback, void* userdata)
{
    return call<sd_bus_request_name_async>("sd_bus_request_name_async", bus, ret_slot, name, flags,
                                           callback, userdata);
}

int sd_bus_send(sd_bus* bus, sd_bus_message* m, uint64_t* cookie)
{
    return call<sd_bus_send>("sd_bus_send", bus, m, cookie);
}

int sd_bus_set_method_call_timeout(sd_bus* bus, uint64_t usec)
{
    return call<sd_bus_set_method_call_timeout>("sd_bus_set_method_call_timeout", bus, usec);
}

sd_bus_slot* sd_bus_slot_unref(sd_bus_slot* slot)
{
    return call<sd_bus_slot_unref>("sd_bus_slot_unref", slot);
}

int sd_event_add_time_relative(sd_event* e, sd_event_source** s, clockid_t clock, uint64_t usec,
                               uint64_t accuracy, sd_event_time_handler_t callback, void* userdata)
{
    return call<sd_event_add_time_relative>("sd_event_add_time_relative", e, s, clock, usec,
                                            accuracy, callback, userdata);
}

int sd_event_dispatch(sd_event* e)
{
    return call<sd_event_dispatch>("sd_event_dispatch", e);
}

int sd_event_get_exit_code(sd_event* e, int* code)
{
    return call<sd_event_get_exit_code>("sd_event_get_exit_code", e, code);
}

int sd_event_get_fd(sd_event* e)
{
    return call<sd_event_get_fd>("sd_event_get_fd", e);
}

int sd_event_new(sd_event** e)
{
    return call<sd_event_new>("sd_event_new", e);
}

int sd_event_prepare(sd_event* e)
{
    return call<sd_event_prepare>("sd_event_prepare", e);
}

sd_event_source* sd_event_source_disable_unref(sd_event_source* s)
{
    return call<sd_event_source_disable_unref>("sd_event_source_disable_unref", s);
}

sd_event* sd_event_unref(sd_event* e)
{
    return call<sd_event_unref>("sd_event_unref", e);
}

int sd_event_wait(sd_event* e, uint64_t usec)
{
    return call<sd_event_wait>("sd_event_wait", e, usec);
}

int sd_bus_emit_properties_changed(sd_bus* bus, const char* path, const char* interface,
                                   const char* name, ...)
{
    std::vector<std::string> names;
    std::va_list more;
    va_start(more, name);
    for (const char* one = name; one != nullptr; one = va_arg(more, const char*)) {
        names.emplace_back(one);
    }
    va_end(more);
    std::vector<char*> list(names.size() + 1);  // the last one stays null
    std::transform(names.begin(), names.end(), list.begin(),
                   [](std::string& one) { return one.data(); });
    return call<sd_bus_emit_properties_changed_strv>("sd_bus_emit_properties_changed_strv", bus,
                                                     path, interface, list.data());
}

// Weak, so that tests can have a journal of their own.
__attribute__((weak)) int sd_journal_sendv(const struct iovec* iov, int n)
{
    return call<sd_journal_sendv>("sd_journal_sendv", iov, n);
}

}  // extern "C"

// NOLINTEND(cppcoreguidelines-pro-bounds-array-to-pointer-decay,hicpp-no-array-decay)
// NOLINTEND(cert-dcl50-cpp,cppcoreguidelines-pro-type-vararg,hicpp-vararg)
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
