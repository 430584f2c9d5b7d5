#include "common/src/http/HttpTypes.h"

namespace zagent::common {

std::string ToString(HttpMethod method) {
  switch (method) {
    case HttpMethod::Get:
      return "GET";
    case HttpMethod::Post:
      return "POST";
    case HttpMethod::Put:
      return "PUT";
  }
  return "";
}

}  // namespace zagent::common
