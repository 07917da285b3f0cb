// Owning wrappers of libcurl and libxml2 handles, freed when they go.
#ifndef SKARVO_REMOTES_CURL_HANDLES_H_
#define SKARVO_REMOTES_CURL_HANDLES_H_

#include <curl/curl.h>
#include <libxml/tree.h>

#include <memory>

struct CurlEasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlShareDeleter {
    void operator()(CURLSH* share) const { curl_share_cleanup(share); }
};
struct CurlListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct XmlDocDeleter {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;
using CurlShare = std::unique_ptr<CURLSH, CurlShareDeleter>;
using CurlList = std::unique_ptr<curl_slist, CurlListDeleter>;
using XmlDoc = std::unique_ptr<xmlDoc, XmlDocDeleter>;

#endif  // SKARVO_REMOTES_CURL_HANDLES_H_
