#pragma once

#include <exception>
#include <string>

namespace zagent::fakes {

// The words of what `work` throws as `Exception`; anything else passes.
template <typename Exception = std::exception, typename Work>
std::string WhatOf(Work work) {
  try {
    work();
  } catch (const Exception& error) {
    return error.what();
  }
  return "nothing was thrown";
}

}  // namespace zagent::fakes
