// What a statement throws, as text.
#pragma once

#include <string>

#include "base/include/exceptions.h"

namespace testsupport {

// "CLASS RC TEXT".
inline std::string textOf(const LUMOException& failure) {
  return std::string(failure.className()) + " " + std::to_string(failure.rc()) + " " + failure.what();
}

// That of what the statement throws, or "nothing thrown". An exception of no tree of ours comes through.
template <class Statement>
std::string failureOf(Statement statement) {
  try {
    statement();
  } catch (const LUMOException& failure) {
    return textOf(failure);
  }
  return "nothing thrown";
}

// The words alone, of an exception of that class; any other one comes through.
template <class Exception, class Statement>
std::string wordsOf(Statement statement) {
  try {
    statement();
  } catch (const Exception& failure) {
    return failure.what();
  }
  return "nothing thrown";
}

}  // namespace testsupport
