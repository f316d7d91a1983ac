// The exception tree of the whole system.
//
//   LUMOException
//     lumo::Base_Exception       lumo::IOException, SystemException, DNSUnavailableException,
//                                EndOfFileException, BadDataException, IPCException
//     lumo::FileSecurityException  (a sibling of Base_Exception: catch it first where it matters)
//     BASALTException            BaseException, LDAPException, KerberosException (kerb_wrap.h)
//
// Subclasses add no member: they differ by type and by the class name that they pass.
#pragma once

#include <exception>
#include <string>

// Root of the tree. Holds message, class name and result code; all texts are copies, so what() and className() stay
// valid as long as the exception lives. Any thread.
class LUMOException : public std::exception {
 public:
  LUMOException(const char* file, int line, const char* message, const char* className, int rc)
      : m_message(message), m_className(className), m_rc(rc), m_file(file), m_line(line) {}
  ~LUMOException() override = default;
  LUMOException(const LUMOException&) = default;
  LUMOException& operator=(const LUMOException&) = default;

  const char* what() const noexcept override { return m_message.c_str(); }
  // -1 where no more particular code exists.
  virtual int rc() const noexcept { return m_rc; }
  virtual const char* className() const noexcept { return m_className.c_str(); }

  // Where the exception was thrown: source file relative to the tree, and line.
  const std::string& file() const noexcept { return m_file; }
  int line() const noexcept { return m_line; }

 private:
  std::string m_message;
  std::string m_className;
  int m_rc;
  std::string m_file;
  int m_line;
};

// NOLINTBEGIN(bugprone-macro-parentheses): the arguments are names of classes.
// A class of the tree with its base. The default class name is the type's own.
#define LUMO_DECLARE_EXCEPTION(Name, Base)                                                            \
  class Name : public Base {                                                                          \
   public:                                                                                            \
    Name(const char* file, int line, const char* message, const char* className = #Name, int rc = -1) \
        : Base(file, line, message, className, rc) {}                                                 \
  }
// NOLINTEND(bugprone-macro-parentheses)

LUMO_DECLARE_EXCEPTION(BASALTException, LUMOException);
LUMO_DECLARE_EXCEPTION(BaseException, BASALTException);
LUMO_DECLARE_EXCEPTION(LDAPException, BASALTException);

namespace lumo {

LUMO_DECLARE_EXCEPTION(Base_Exception, LUMOException);
LUMO_DECLARE_EXCEPTION(FileSecurityException, LUMOException);
LUMO_DECLARE_EXCEPTION(IOException, Base_Exception);
LUMO_DECLARE_EXCEPTION(SystemException, Base_Exception);
LUMO_DECLARE_EXCEPTION(DNSUnavailableException, Base_Exception);
LUMO_DECLARE_EXCEPTION(EndOfFileException, Base_Exception);
LUMO_DECLARE_EXCEPTION(BadDataException, Base_Exception);
// A request to the agent that failed after the session stood; handled apart from IOException.
LUMO_DECLARE_EXCEPTION(IPCException, Base_Exception);

// Formats an exception's message printf-style through a buffer of 512 bytes: at most 511 characters come out.
std::string exceptionMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace lumo

// Throws Type with a printf-style message, the place of the throw and the type's name.
#define LUMO_THROW(Type, rc, ...) \
  throw Type(__FILE__, __LINE__, ::lumo::exceptionMessage(__VA_ARGS__).c_str(), LUMO_CLASS_NAME(#Type), (rc))

// "lumo::IOException" -> "IOException".
constexpr const char* LUMO_CLASS_NAME(const char* qualified) {
  const char* name = qualified;
  for (const char* p = qualified; *p != '\0'; ++p) {
    if (*p == ':') name = p + 1;
  }
  return name;
}
