#include "tools/quillonctl/json-line.h"

#include <json/writer.h>

#include <iostream>

namespace quillon {

Json::Value eventObject(const char* name)
{
    Json::Value object(Json::objectValue);
    object["event"] = name;
    return object;
}

void writeJsonLine(const Json::Value& object)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::cout << Json::writeString(builder, object) << std::endl;
}

}  // namespace quillon
