// ExceptionCatchWrapperBase: the guard around code that runs on a thread of its own, where an
// exception escaping would end the process. What comes through is logged at level 3 with the
// place it was caught, and the guard answers false.
//
//   bool done = utils::ExceptionCatchWrapperBase::Guard("tree worker", [&] { Work(); });
#pragma once

#include <exception>
#include <utility>

#include <boost/exception/exception.hpp>

namespace utils {

class ExceptionCatchWrapperBase {
 public:
  static void LogException(const char* where, const std::exception& error);
  static void LogException(const char* where, const boost::exception& error);
  static void LogUnknownException(const char* where);

  // Runs `body`; answers false when it threw.
  template <typename Body>
  static bool Guard(const char* where, Body&& body) noexcept {
    try {
      std::forward<Body>(body)();
      return true;
    } catch (const boost::exception& error) {
      // First: boost::throw_exception makes types that are both, and its diagnostics say more.
      LogException(where, error);
    } catch (const std::exception& error) {
      LogException(where, error);
    } catch (...) {
      LogUnknownException(where);
    }
    return false;
  }
};

}  // namespace utils
