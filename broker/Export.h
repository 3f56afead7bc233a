/// What libvokbroker.so shows: everything else is hidden.
#pragma once

#define VOK_EXPORT __attribute__((visibility("default")))
