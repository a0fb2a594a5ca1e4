#pragma once

#include <sys/cdefs.h>

// Same limits as the device's property area: a value holds at most 91
// characters plus the terminating NUL.
#define PROP_VALUE_MAX 92
#define PROP_NAME_MAX 32
#define PROPERTY_VALUE_MAX PROP_VALUE_MAX
#define PROPERTY_KEY_MAX PROP_NAME_MAX

__BEGIN_DECLS

// Copies the property's value into `value` (which must hold PROPERTY_VALUE_MAX
// bytes) and returns its length. An unset or empty property yields
// `default_value` (cut to 91 characters), or "" and 0 without a default.
int property_get(const char* key, char* value, const char* default_value);

// Sets the property. Returns 0 on success, -1 on failure.
int property_set(const char* key, const char* value);

__END_DECLS
