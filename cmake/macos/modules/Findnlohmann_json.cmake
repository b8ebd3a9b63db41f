include(HeadersOnly)
norvo_headers_only(nlohmann_json::nlohmann_json nlohmann)
set(nlohmann_json_FOUND TRUE)
