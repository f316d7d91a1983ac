// Objects of the directory: attributes, records, identifiers. One thread at a time; handles may be shared between
// threads that only read.
#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <string>
#include <vector>

#include "base/include/properties.h"

inline constexpr char AD_DN[] = "distinguishedName";
inline constexpr char AD_DNS_NAME[] = "dNSHostName";
inline constexpr char AD_CN[] = "cn";
inline constexpr char AD_KEYWORDS[] = "keywords";
inline constexpr char AD_OBJECT_CATEGORY[] = "objectCategory";
inline constexpr char AD_OBJECT_CLASS[] = "objectClass";
inline constexpr char AD_OBJECT_GUID[] = "objectGUID";
inline constexpr char AD_OBJECT_SID[] = "objectSid";
inline constexpr char AD_USN_CHANGED[] = "uSNChanged";
inline constexpr char AD_USER_ACCNT_CONTROL[] = "userAccountControl";
inline constexpr char LUMO_USER_PRINCIPAL_NAME[] = "userPrincipalName";

namespace lumo {
class ADObject;
}

// The reference-counted handle of an object.
using ADObjectPtr = boost::shared_ptr<lumo::ADObject>;
using ADObjectList = std::vector<ADObjectPtr>;

namespace lumo {

// The values of one attribute, in the directory's order.
class ADAttribute {
 public:
  ADAttribute() = default;
  explicit ADAttribute(std::vector<std::string> values) : m_values(std::move(values)) {}
  // An attribute that the object has and whose values could not be read, e.g. because the directory gives only a range
  // of them.
  static ADAttribute unreadable();

  // Replace all values by one.
  ADAttribute& operator=(const std::string& value);
  ADAttribute& operator=(const char* value) { return *this = std::string(value); }

  bool isNull() const { return m_unreadable; }
  const std::vector<std::string>& values() const { return m_values; }
  // The first value, empty when there is none.
  std::string toString() const { return m_values.empty() ? std::string() : m_values.front(); }
  operator std::string() const { return toString(); }
  // The first value read as a decimal number; 0 when it is none or does not fit.
  int toInt() const;
  // "true", "yes" and "1" in any case are true, all else is false.
  bool toBool() const;

 private:
  std::vector<std::string> m_values;
  bool m_unreadable = false;
};

// A globally unique identifier as the directory holds it: 16 bytes, the first three fields little-endian (MS-DTYP).
class Guid {
 public:
  // All zero for a value that does not have 16 bytes.
  explicit Guid(const std::string& bytes);
  // "6f9619ff-8b86-d011-b42d-00c04fc964ff".
  std::string toString() const;

 private:
  unsigned char m_bytes[16] = {};
};

// One object of the directory, with the settings that somebody wrote into it; attribute names compare without case.
class ADObject {
 public:
  ADObject() = default;
  explicit ADObject(std::string dn) : m_dn(std::move(dn)) {}
  const std::string& dn() const { return m_dn; }
  bool empty() const { return m_attributes.empty(); }
  // Is the handle not null, and does the object hold attributes?
  static bool isValid(const ADObjectPtr& object) { return object && !object->empty(); }
  // `withValue`: the attribute must also have a value that is not empty, or be unreadable.
  bool attributeExists(const std::string& name, bool withValue) const;
  // The attribute, an empty one when it is missing.
  const ADAttribute& operator[](const std::string& name) const;
  // The attribute, added without values when it is missing.
  ADAttribute& operator[](const std::string& name);
  // The first value, or the default when there is no attribute or no value.
  std::string getString(const std::string& name, const std::string& defaultValue) const;
  void set(const std::string& name, std::vector<std::string> values);
  const std::map<std::string, ADAttribute, StringCaseLessThan>& attributes() const { return m_attributes; }
  // From `objectGUID`; all zero when the object was read without it.
  Guid guid() const;
  // An independent copy.
  ADObjectPtr clone() const;

 private:
  std::string m_dn;
  std::map<std::string, ADAttribute, StringCaseLessThan> m_attributes;
};

// A security identifier in text form.
class SID {
 public:
  // Throws BadDataException for a text that is no SID.
  explicit SID(const std::string& text);
  // From the bytes of `objectSid` (MS-DTYP). Throws BadDataException for bytes that are no SID.
  static SID ofBytes(const std::string& bytes);
  const std::string& toString() const { return m_text; }
  // The form of a distinguished name that the directory resolves: "<SID=S-1-5-21-...>".
  std::string toDN() const;

 private:
  std::string m_text;
};

}  // namespace lumo
