#include "core/ExceptionCatchWrapper.h"

#include <boost/exception/diagnostic_information.hpp>

#include "core/LoggerWrapper.h"

namespace utils {

void ExceptionCatchWrapperBase::LogException(const char* where, const std::exception& error) {
  LOG_ERROR << "Exception in " << where << ": " << error.what();
}

void ExceptionCatchWrapperBase::LogException(const char* where, const boost::exception& error) {
  LOG_ERROR << "Exception in " << where << ": " << boost::diagnostic_information(error);
}

void ExceptionCatchWrapperBase::LogUnknownException(const char* where) {
  LOG_ERROR << "Exception in " << where << ": of unknown type";
}

}  // namespace utils
