#include "configmanager/exceptions.h"

#include "configmanager/error_codes.h"

namespace RyxConfigManager {

ConfigManagerException::ConfigManagerException(std::int32_t code,
                                               std::initializer_list<std::string> arguments)
    : StatusError(CMErrorCodes, code, arguments) {}

}  // namespace RyxConfigManager
