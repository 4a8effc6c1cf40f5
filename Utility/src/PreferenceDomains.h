// Whole-domain operations on the preference store, for tools that manage
// preferences rather than single values: read, replace or remove a whole
// domain, remove one top-level key, list the domains of a scope, convert
// between stored values and property-list text, and describe a value in a
// readable plist-like form. They go through the same files, the same lock
// and the same atomic replacement as Preferences.h, so they are safe while
// other processes read and write the same domains.
// Every call answers a result and never throws; out-arguments are written
// only on success. Linux binding: Posix/PreferenceDomainsPosix.cpp.
#ifndef LUMETRY_UTILITY_PREFERENCEDOMAINS_H_
#define LUMETRY_UTILITY_PREFERENCEDOMAINS_H_

#include <string>
#include <vector>

#include "Preferences.h"

namespace PreferenceDomains {

// What an edit of a domain found.
enum class EditResult {
  kDone,      // changed and on disk
  kNotFound,  // the key or the domain file did not exist; nothing changed
  kFailed,    // invalid name or scope, lock, read or write failure; nothing changed
};

// True when the domain's file exists in the scope.
bool DomainExists(const std::string& domain, PrefUser user, PrefHost host);

// The whole domain as a dictionary (empty for a missing or unparsable file,
// as every reader of the store sees it). False for an invalid domain or
// scope, or a file that exists but may not be read (errno tells why).
bool CopyDomain(const std::string& domain, PrefUser user, PrefHost host, PrefValue* out);

// Replaces the whole domain with `dictionary` (a dictionary value; values of
// any kind inside it are kept). False for an invalid domain or scope, a
// value that is not a dictionary, or a failed write.
bool ReplaceDomain(const std::string& domain, PrefUser user, PrefHost host,
                   const PrefValue& dictionary);

// Removes the top-level `key` of the domain.
EditResult RemoveKey(const std::string& key, const std::string& domain, PrefUser user,
                     PrefHost host);

// Removes the domain's file, under the domain's lock.
EditResult RemoveDomain(const std::string& domain, PrefUser user, PrefHost host);

// The domains that have a file in the scope, sorted. A scope directory that
// does not exist has none. False when the scope is invalid or its directory
// cannot be listed.
bool ListDomains(PrefUser user, PrefHost host, std::vector<std::string>* domains);

// The value as an XML property list. False for no value.
bool ToXml(const PrefValue& value, std::string* xml);

// Parses an XML or binary property list. False (out untouched) when the
// bytes are neither.
bool FromPropertyList(const std::string& bytes, PrefValue* out);

// A readable, plist-like multi-line rendering: dictionaries as
// "{ key = value; }", arrays as "( a, b )", strings quoted with C escapes,
// integers in decimal. Kinds beyond the four of the store (booleans, reals,
// dates, data) are shown too. No value renders as "".
std::string Describe(const PrefValue& value);

// The kind's name: "dictionary", "string", "integer", "array", "boolean",
// "real", "date", "data", or "" for no value.
std::string KindName(const PrefValue& value);

}  // namespace PreferenceDomains

#endif  // LUMETRY_UTILITY_PREFERENCEDOMAINS_H_
