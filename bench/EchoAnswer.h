// The answer that the echo server gives and the load generator expects: a frame of the request's answer type
// whose body is filler.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "client/Frame.h"

namespace bench {

inline std::string echo_answer(int32_t request_type, size_t whole_bytes) {
  const size_t body_bytes = std::max(whole_bytes, velder_client::kHeaderBytes) - velder_client::kHeaderBytes;
  const auto header = velder_client::encode_header(
      {static_cast<int32_t>(body_bytes), velder_client::answer_type(request_type)});
  return std::string(header.data(), header.size()).append(body_bytes, '.');
}

}  // namespace bench
