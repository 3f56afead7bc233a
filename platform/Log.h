/// How the broker's code logs: `VOK_LOG(LEVEL_ERROR, "Unknown location.")`.
///
/// A filtered message costs one comparison; its arguments are not evaluated.
#pragma once

#include "platform/CVOKDebug.h"

/// As `operation`: a step helper or a lambda names the operation that it is part of.
#define VOK_LOG_AS(operation, level, ...)                                                    \
    do {                                                                                     \
        if (::vok::CVOKDebug::IsWritten(level)) {                                            \
            ::vok::CVOKDebug::PrintLog(1, (level), "[VOK][%s(%d)] ", (operation), __LINE__); \
            ::vok::CVOKDebug::PrintLog(1, (level), __VA_ARGS__);                             \
        }                                                                                    \
    } while (0)

#define VOK_LOG(level, ...) VOK_LOG_AS(__func__, level, __VA_ARGS__)

/// As `cls::operation`, the form of proxies and of some registries.
#define VOK_CLASS_LOG_AS(cls, operation, level, ...)                                         \
    do {                                                                                     \
        if (::vok::CVOKDebug::IsWritten(level)) {                                            \
            ::vok::CVOKDebug::PrintLog(1, (level), "[VOK][%s::%s(%d)] ", (cls), (operation), \
                                       __LINE__);                                            \
            ::vok::CVOKDebug::PrintLog(1, (level), __VA_ARGS__);                             \
        }                                                                                    \
    } while (0)

#define VOK_CLASS_LOG(cls, level, ...) VOK_CLASS_LOG_AS(cls, __func__, level, __VA_ARGS__)
