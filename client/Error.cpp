#include "client/Error.h"

#include <system_error>
#include <utility>

namespace velder_client {

tl::unexpected<Error> fail(ErrorKind kind, std::string text) {
  return tl::make_unexpected(Error{kind, std::move(text)});
}

std::string system_text(std::string_view what, int error_number) {
  return std::string(what) + ": " + std::generic_category().message(error_number);
}

}  // namespace velder_client
