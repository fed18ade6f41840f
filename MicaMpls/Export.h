// Symbol visibility of libMicaMplsSwBundleSwTable: the library is built with
// hidden visibility and exports only what is marked MICA_MPLS_API.
#pragma once

#define MICA_MPLS_API __attribute__((visibility("default")))
