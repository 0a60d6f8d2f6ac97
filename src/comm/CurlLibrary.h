#pragma once

#include <curl/curl.h>

// libcurl, loaded on first use. Its dependency chain (TLS, Kerberos, LDAP)
// costs several milliseconds of start-up in every process that links it, and
// most runs of the binary (report commands) never talk to the server.
struct CurlLibrary {
    CURLcode (*global_init)(long flags);
    CURL* (*easy_init)();
    CURLcode (*easy_setopt)(CURL*, CURLoption, ...);
    CURLcode (*easy_perform)(CURL*);
    void (*easy_cleanup)(CURL*);
    curl_slist* (*slist_append)(curl_slist*, const char*);
    void (*slist_free_all)(curl_slist*);
    curl_mime* (*mime_init)(CURL*);
    curl_mimepart* (*mime_addpart)(curl_mime*);
    CURLcode (*mime_name)(curl_mimepart*, const char*);
    CURLcode (*mime_data)(curl_mimepart*, const char*, size_t);
    CURLcode (*mime_filedata)(curl_mimepart*, const char*);
    void (*mime_free)(curl_mime*);
    CURLcode (*easy_getinfo)(CURL*, CURLINFO, ...);

    // Loaded and globally initialised once per process; null when libcurl
    // cannot be loaded (the reason is in error()).
    static const CurlLibrary* get();
    static const char* error();
};
