#include "tools/quillonctl/json-line.h"

#include <json/writer.h>

#include <iostream>

namespace quillon {

Json::Value jsonObject(const JsonMembers& members)
{
    Json::Value object(Json::objectValue);
    for (const auto& [name, value] : members) {
        if (!value.isNull()) {
            object[name] = value;
        }
    }
    return object;
}

void writeEvent(const char* event, const JsonMembers& members)
{
    Json::Value object = jsonObject(members);
    object["event"] = event;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::cout << Json::writeString(builder, object) << std::endl;
}

}  // namespace quillon
