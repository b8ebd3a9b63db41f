include(HeadersOnly)
norvo_headers_only(xxHash::headers xxhash.h xxh3.h)
set(xxHash_FOUND TRUE)
