#include "platform/Error.h"

#include "platform/Value.h"

struct CVError::Record {
  std::string domain;
  long code = 0;
  CVDictionary userInfo;
};

CVError::CVError(std::string domain, long code)
    : CVError(std::move(domain), code, CVDictionary()) {}

CVError::CVError(std::string domain, long code, CVDictionary userInfo)
    : record_(
          std::make_shared<const Record>(Record{std::move(domain), code, std::move(userInfo)})) {}

CVError CVError::posix(int errnoValue, std::string description) {
  CVDictionary userInfo;
  userInfo.set(std::string(kLocalizedDescriptionKey), std::move(description));
  return CVError(std::string(kPOSIXErrorDomain), errnoValue, std::move(userInfo));
}

const std::string& CVError::domain() const {
  static const std::string empty;
  return record_ ? record_->domain : empty;
}

long CVError::code() const {
  return record_ ? record_->code : 0;
}

const CVDictionary& CVError::userInfo() const {
  static const CVDictionary empty;
  return record_ ? record_->userInfo : empty;
}

std::string CVError::localizedDescription() const {
  const std::string* text = userInfo().findString(kLocalizedDescriptionKey);
  return text ? *text : std::string();
}

CVError CVError::underlyingError() const {
  const CVValue* value = userInfo().find(kUnderlyingErrorKey);
  const CVError* underlying = value ? value->asError() : nullptr;
  return underlying ? *underlying : CVError();
}

bool CVError::isPOSIX(int errnoValue) const {
  return record_ && record_->domain == kPOSIXErrorDomain && record_->code == errnoValue;
}

std::string CVError::description(int indent) const {
  if (!record_) return "(null)";
  return "Error Domain=" + record_->domain + " Code=" + std::to_string(record_->code) + " \"" +
         localizedDescription() + "\" UserInfo=" + record_->userInfo.description(indent);
}

bool CVError::operator==(const CVError& other) const {
  if (record_ == other.record_) return true;
  if (!record_ || !other.record_) return false;
  return record_->domain == other.record_->domain && record_->code == other.record_->code &&
         record_->userInfo == other.record_->userInfo;
}
