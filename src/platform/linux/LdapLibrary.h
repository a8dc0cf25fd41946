#pragma once

// The functions of libldap that a search needs.

#include "platform/linux/SharedLibrary.h"

#include <ldap.h>

namespace platform {

struct LdapLibrary {
    SharedLibrary library{OSTLER_LDAP_LIBRARY};
    LibraryFunction<decltype(ldap_initialize)> initialize{library, "ldap_initialize"};
    LibraryFunction<decltype(ldap_set_option)> setOption{library, "ldap_set_option"};
    LibraryFunction<decltype(ber_sockbuf_ctrl)> controlSocket{library, "ber_sockbuf_ctrl"};
    LibraryFunction<decltype(ber_sockbuf_add_io)> addLayer{library, "ber_sockbuf_add_io"};
    LibraryFunction<decltype(ldap_connect)> connect{library, "ldap_connect"};
    LibraryFunction<decltype(ldap_unbind_ext_s)> unbind{library, "ldap_unbind_ext_s"};
    LibraryFunction<decltype(ldap_search_ext_s)> search{library, "ldap_search_ext_s"};
    LibraryFunction<decltype(ldap_err2string)> errorText{library, "ldap_err2string"};

    LibraryFunction<decltype(ldap_first_entry)> firstEntry{library, "ldap_first_entry"};
    LibraryFunction<decltype(ldap_next_entry)> nextEntry{library, "ldap_next_entry"};
    LibraryFunction<decltype(ldap_get_dn)> dn{library, "ldap_get_dn"};
    LibraryFunction<decltype(ldap_first_attribute)> firstAttribute{library, "ldap_first_attribute"};
    LibraryFunction<decltype(ldap_next_attribute)> nextAttribute{library, "ldap_next_attribute"};
    LibraryFunction<decltype(ldap_get_values_len)> values{library, "ldap_get_values_len"};

    LibraryFunction<decltype(ldap_msgfree)> freeMessage{library, "ldap_msgfree"};
    LibraryFunction<decltype(ldap_memfree)> freeText{library, "ldap_memfree"};
    LibraryFunction<decltype(ldap_value_free_len)> freeValues{library, "ldap_value_free_len"};
    LibraryFunction<decltype(ber_free)> freeCursor{library, "ber_free"};
};

} // namespace platform
