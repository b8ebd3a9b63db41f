include(HeadersOnly)
norvo_headers_only(fmt::fmt-header-only fmt DEFINE FMT_HEADER_ONLY=1)
set(fmt_FOUND TRUE)
