#include <qxpemu/RecordedRequest.h>

#include "Text.h"

namespace qxpemu {

std::string RecordedRequest::header(const std::string& name) const {
    for (const auto& field : headers) {
        if (text::equalsIgnoreCase(field.first, name)) {
            return field.second;
        }
    }
    return "";
}

}  // namespace qxpemu
