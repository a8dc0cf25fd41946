#pragma once

// The functions of libcurl that a transfer needs.

#include "platform/linux/SharedLibrary.h"

#include <curl/curl.h>

namespace platform {

struct CurlLibrary {
    SharedLibrary library{OSTLER_CURL_LIBRARY};
    LibraryFunction<decltype(curl_global_init)> globalInit{library, "curl_global_init"};
    LibraryFunction<decltype(curl_free)> free{library, "curl_free"};

    LibraryFunction<decltype(curl_url)> url{library, "curl_url"};
    LibraryFunction<decltype(curl_url_set)> urlSet{library, "curl_url_set"};
    LibraryFunction<decltype(curl_url_get)> urlGet{library, "curl_url_get"};
    LibraryFunction<decltype(curl_url_cleanup)> urlCleanup{library, "curl_url_cleanup"};

    LibraryFunction<decltype(curl_easy_init)> easyInit{library, "curl_easy_init"};
    LibraryFunction<decltype(curl_easy_setopt)> easySetopt{library, "curl_easy_setopt"};
    LibraryFunction<decltype(curl_easy_getinfo)> easyGetinfo{library, "curl_easy_getinfo"};
    LibraryFunction<decltype(curl_easy_strerror)> easyStrerror{library, "curl_easy_strerror"};
    LibraryFunction<decltype(curl_easy_unescape)> easyUnescape{library, "curl_easy_unescape"};
    LibraryFunction<decltype(curl_easy_cleanup)> easyCleanup{library, "curl_easy_cleanup"};

    LibraryFunction<decltype(curl_multi_init)> multiInit{library, "curl_multi_init"};
    LibraryFunction<decltype(curl_multi_add_handle)> multiAddHandle{library, "curl_multi_add_handle"};
    LibraryFunction<decltype(curl_multi_remove_handle)> multiRemoveHandle{library,
                                                                          "curl_multi_remove_handle"};
    LibraryFunction<decltype(curl_multi_perform)> multiPerform{library, "curl_multi_perform"};
    LibraryFunction<decltype(curl_multi_info_read)> multiInfoRead{library, "curl_multi_info_read"};
    LibraryFunction<decltype(curl_multi_poll)> multiPoll{library, "curl_multi_poll"};
    LibraryFunction<decltype(curl_multi_cleanup)> multiCleanup{library, "curl_multi_cleanup"};
};

} // namespace platform
