// The directory: sessions, nodes, queries and records.

#include "machost/opendirectory/Library.h"

#include "machost/corefoundation/Collections.h"
#include "machost/corefoundation/Strings.h"
#include "machost/corefoundation/Values.h"
#include "machost/foundation/Errors.h"
#include "machost/objc/Messages.h"
#include "machost/objc/PlayedClass.h"
#include "machost/objc/Pools.h"
#include "machost/world/Directory.h"

namespace machost::opendirectory {
namespace {

namespace cf = corefoundation;
using foundation::tellError;
using objc::Selector;

struct Query {
    std::unique_ptr<world::DirectoryQuery> query;
    ObjectRef delegate = nullptr; // not owned, as the framework does it
};
using Record = std::shared_ptr<const world::DirectoryRecord>;

const Class sessionClass{&classOfClasses, &rootClass, {}, nullptr, "ODSession", nullptr};
const Class nodeClass{&classOfClasses, &rootClass, {},
                      nullptr,         "ODNode",   destroyValue<world::DirectoryNodeRef>};
const Class queryClass{&classOfClasses, &rootClass, {}, nullptr, "ODQuery", destroyValue<Query>};
const Class recordClass{&classOfClasses, &rootClass, {}, nullptr, "ODRecord", destroyValue<Record>};

// <OpenDirectory/CFODErrors.h>
constexpr std::int64_t unknownName = 2000, unknownType = 2001, connectionFailed = 2100,
                       unsupportedMatchType = 3101;

void tellProblem(ObjectRef* wanted, std::int64_t code, const std::string& problem) {
    tellError(wanted, {"com.apple.OpenDirectory", code, problem, problem});
}

// A text where it is one, else bytes.
ObjectRef valueObject(const std::string& value) {
    return cf::isValidUtf8(value) ? cf::makeString(value) : createObject<std::string>(cf::dataClass, value);
}

ObjectRef arrayOf(const std::vector<Held>& objects) {
    std::vector<const void*> pointers;
    pointers.reserve(objects.size());
    for (const Held& object : objects)
        pointers.push_back(object.get());
    return cf::makeArray(pointers);
}

ObjectRef textArray(const std::vector<std::string>& texts) {
    std::vector<Held> objects;
    objects.reserve(texts.size());
    for (const std::string& text : texts)
        objects.push_back(Held::adopt(valueObject(text)));
    return arrayOf(objects);
}

ObjectRef recordArray(const world::DirectoryRecords& records) {
    std::vector<Held> objects;
    objects.reserve(records.size());
    for (const Record& record : records)
        objects.push_back(Held::adopt(createObject<Record>(recordClass, record)));
    return objc::autorelease(arrayOf(objects));
}

// Nobody owns it.
ObjectRef defaultSession(ObjectRef, Selector) {
    declareConstantClass(sessionClass);
    static const Class* session = &sessionClass;
    return &session;
}

ObjectRef nodeNames(ObjectRef, Selector, ObjectRef* wanted) {
    std::vector<std::string> names;
    std::string problem;
    if (world::directoryNodeNames(names, problem)) return objc::autorelease(textArray(names));
    tellProblem(wanted, connectionFailed, problem);
    return nullptr;
}

ObjectRef nodeOrNil(world::DirectoryNodeRef node, std::int64_t code, const std::string& problem,
                    ObjectRef* wanted) {
    if (node) return objc::createAutoreleased<world::DirectoryNodeRef>(nodeClass, std::move(node));
    tellProblem(wanted, code, problem);
    return nullptr;
}

ObjectRef nodeOfType(ObjectRef, Selector, const void*, std::uint32_t type, ObjectRef* wanted) {
    std::string problem;
    return nodeOrNil(world::directoryNodeOfType(type, problem), unknownType, problem, wanted);
}

ObjectRef nodeNamed(ObjectRef, Selector, const void*, const void* name, ObjectRef* wanted) {
    std::string problem;
    return nodeOrNil(world::directoryNodeNamed(cf::textOf(name), problem), unknownName, problem, wanted);
}

// One text or an array of texts; of more than one only the first is played.
std::string firstText(const void* object) {
    if (cf::isString(object)) return cf::textOf(object);
    if (!object || classOf(object) != &cf::arrayClass || cf::elementsOf(object).empty()) return {};
    return firstText(cf::elementsOf(object).front().get());
}

ObjectRef queryWithNode(ObjectRef, Selector, const void* node, const void* types, const void* attribute,
                        std::uint32_t matchType, const void* values, const void* returned, std::int64_t limit,
                        ObjectRef* wanted) {
    const world::DirectoryTerms terms{firstText(types),  firstText(attribute), matchType,
                                      firstText(values), firstText(returned),  limit};
    std::string problem = "no node to query";
    auto query = node ? valueOf<world::DirectoryNodeRef>(node)->query(terms, problem) : nullptr;
    if (query) return objc::createAutoreleased<Query>(queryClass, std::move(query));
    tellProblem(wanted, unsupportedMatchType, problem);
    return nullptr;
}

// A query with a delegate runs only on a run loop, which the program does not schedule it on.
void setDelegate(ObjectRef self, Selector, ObjectRef delegate) { valueOf<Query>(self).delegate = delegate; }
ObjectRef delegate(ObjectRef self, Selector) { return valueOf<Query>(self).delegate; }

ObjectRef results(ObjectRef self, Selector, signed char partial, ObjectRef* wanted) {
    world::DirectoryRecords records;
    std::string problem;
    if (valueOf<Query>(self).query->results(partial != 0, records, problem)) return recordArray(records);
    tellProblem(wanted, connectionFailed, problem);
    return nullptr;
}

ObjectRef recordType(ObjectRef self, Selector) {
    return objc::autorelease(cf::makeString(valueOf<Record>(self)->type()));
}
ObjectRef description(ObjectRef self, Selector) {
    return objc::autorelease(cf::makeString(valueOf<Record>(self)->description()));
}

ObjectRef recordDetails(ObjectRef self, Selector, const void* attributes, ObjectRef* wanted) {
    std::vector<std::string> names;
    for (const Held& name : cf::elementsOf(attributes))
        names.push_back(cf::textOf(name.get()));
    world::DirectoryDetails details;
    std::string problem;
    if (!valueOf<Record>(self)->details(names, details, problem)) {
        tellProblem(wanted, connectionFailed, problem);
        return nullptr;
    }
    cf::Pairs pairs;
    for (const auto& [name, values] : details)
        pairs.emplace_back(Held::adopt(cf::makeString(name)), Held::adopt(textArray(values)));
    return objc::autorelease(cf::makeDictionary(std::move(pairs)));
}

const objc::PlayedClass& playedSession() {
    static const auto& played = *new objc::PlayedClass{&sessionClass,
                                                       "ODSession.h",
                                                       {objc::method("defaultSession", defaultSession)},
                                                       {objc::method("nodeNamesAndReturnError:", nodeNames)}};
    return played;
}

const objc::PlayedClass& playedNode() {
    static const auto& played =
        *new objc::PlayedClass{&nodeClass,
                               "ODNode.h",
                               {objc::method("nodeWithSession:type:error:", nodeOfType),
                                objc::method("nodeWithSession:name:error:", nodeNamed)},
                               {}};
    return played;
}

const objc::PlayedClass& playedQuery() {
    static const auto& played = *new objc::PlayedClass{
        &queryClass,
        "ODQuery.h, for one type and one value, without run loops",
        {objc::method(
            "queryWithNode:forRecordTypes:attribute:matchType:queryValues:returnAttributes:maximumResults:"
            "error:",
            queryWithNode)},
        {objc::method("setDelegate:", setDelegate), objc::method("delegate", delegate),
         objc::method("resultsAllowingPartial:error:", results)}};
    return played;
}

const objc::PlayedClass& playedRecord() {
    static const auto& played = *new objc::PlayedClass{
        &recordClass,
        "ODRecord.h",
        {},
        {objc::method("recordType", recordType), objc::method("description", description),
         objc::method("recordDetailsForAttributes:error:", recordDetails)}};
    return played;
}

const ImportTable& directoryImports() {
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_ODSession", &sessionClass, "ODSession.h"),
        variable("_OBJC_CLASS_$_ODNode", &nodeClass, "ODNode.h"),
        variable("_OBJC_CLASS_$_ODQuery", &queryClass, "ODQuery.h"),
    };
    return table;
}

} // namespace

Library library() {
    return {"/System/Library/Frameworks/OpenDirectory.framework/Versions/A/OpenDirectory",
            {&directoryImports()},
            {&playedSession(), &playedNode(), &playedQuery(), &playedRecord()}};
}

} // namespace machost::opendirectory
