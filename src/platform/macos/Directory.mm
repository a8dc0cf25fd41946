// The directory through the OpenDirectory framework. The framework's own constants for types and attributes have
// the texts that this program uses for them.

#include "platform/Directory.h"

#include "platform/macos/FoundationText.h"

#import <OpenDirectory/OpenDirectory.h>

// Hands what the framework finds to a delegate of this program's own.
@interface OstlerQueryDelegate : NSObject <ODQueryDelegate> {
@public
    platform::DirectoryQueryDelegate target;
    platform::DirectoryQuery* source;
}
@end

namespace platform {
namespace {

static_assert(kODNodeTypeAuthentication == ::kODNodeTypeAuthentication &&
              kODMatchEqualTo == ::kODMatchEqualTo);

DirectoryError errorOf(NSError* error) { return {plainText(error.description)}; }

NSArray* textObjects(const std::vector<std::string>& texts) {
    std::vector<NSString*> objects;
    for (const std::string& text : texts)
        objects.push_back(textObject(text));
    return [NSArray arrayWithObjects:objects.data() count:objects.size()];
}

// A value is a text or bytes.
std::string valueText(id value) {
    if ([value isKindOfClass:[NSString class]]) return plainText(value);
    if (![value isKindOfClass:[NSData class]]) return {};
    NSData* data = value;
    return std::string(static_cast<const char*>(data.bytes), data.length);
}

class FrameworkRecord final : public DirectoryRecord {
public:
    explicit FrameworkRecord(ODRecord* record) : record_(record) {}

    std::string recordType() const override {
        @autoreleasepool {
            return plainText(record_.recordType);
        }
    }

    std::string description() const override {
        @autoreleasepool {
            return plainText(record_.description);
        }
    }

    bool recordDetailsForAttributes(const std::vector<std::string>& attributes, DirectoryDetails& details,
                                    DirectoryError& error) const override {
        @autoreleasepool {
            NSError* problem = nil;
            NSDictionary* found = [record_ recordDetailsForAttributes:textObjects(attributes) error:&problem];
            if (problem) {
                error = errorOf(problem);
                return false;
            }
            for (const std::string& attribute : attributes) {
                NSArray* values = found[textObject(attribute)];
                if (!values) continue;
                for (id value in values)
                    details[attribute].push_back(valueText(value));
            }
            return true;
        }
    }

private:
    ODRecord* record_;
};

DirectoryRecords recordsOf(NSArray* found) {
    DirectoryRecords records;
    for (ODRecord* record in found)
        records.push_back(std::make_shared<FrameworkRecord>(record));
    return records;
}

struct FrameworkNode final : public DirectoryNode {
    explicit FrameworkNode(ODNode* opened) : node(opened) {}

    ODNode* node;
};

class FrameworkQuery final : public DirectoryQuery {
public:
    explicit FrameworkQuery(ODQuery* query) : query_(query) {}

    // The framework keeps no reference to its delegate.
    ~FrameworkQuery() override { query_.delegate = nil; }

    void setDelegate(const DirectoryQueryDelegate& delegate) override {
        delegate_ = [[OstlerQueryDelegate alloc] init];
        delegate_->target = delegate;
        delegate_->source = this;
        query_.delegate = delegate_;
    }

    bool resultsAllowingPartial(bool partial, DirectoryRecords& records, DirectoryError& error) override {
        @autoreleasepool {
            NSError* problem = nil;
            NSArray* found = [query_ resultsAllowingPartial:partial error:&problem];
            if (problem) {
                error = errorOf(problem);
                return false;
            }
            records = recordsOf(found);
            return true;
        }
    }

private:
    ODQuery* query_;
    OstlerQueryDelegate* delegate_ = nil;
};

// The node, or null with the error.
DirectoryNodeRef nodeOrError(ODNode* node, NSError* problem, DirectoryError& error) {
    if (node) return std::make_shared<FrameworkNode>(node);
    error = errorOf(problem);
    return nullptr;
}

class FrameworkDirectory final : public Directory {
public:
    bool nodeNames(std::vector<std::string>& names, DirectoryError& error) override {
        @autoreleasepool {
            NSError* problem = nil;
            NSArray* found = [[ODSession defaultSession] nodeNamesAndReturnError:&problem];
            if (problem) {
                error = errorOf(problem);
                return false;
            }
            for (NSString* name in found)
                names.push_back(plainText(name));
            return true;
        }
    }

    DirectoryNodeRef nodeWithType(DirectoryNodeType type, DirectoryError& error) override {
        @autoreleasepool {
            NSError* problem = nil;
            ODNode* node = [ODNode nodeWithSession:[ODSession defaultSession] type:type error:&problem];
            return nodeOrError(node, problem, error);
        }
    }

    DirectoryNodeRef nodeWithName(const std::string& name, DirectoryError& error) override {
        @autoreleasepool {
            NSError* problem = nil;
            ODNode* node = [ODNode nodeWithSession:[ODSession defaultSession]
                                              name:textObject(name)
                                             error:&problem];
            return nodeOrError(node, problem, error);
        }
    }

    std::unique_ptr<DirectoryQuery> queryWithNode(const DirectoryNodeRef& node,
                                                  const DirectoryQueryTerms& terms,
                                                  DirectoryError& error) override {
        if (!node) {
            error.description = "no node to query";
            return nullptr;
        }
        @autoreleasepool {
            NSError* problem = nil;
            ODQuery* query = [ODQuery queryWithNode:static_cast<FrameworkNode*>(node.get())->node
                                     forRecordTypes:textObject(terms.recordType)
                                          attribute:textObject(terms.attribute)
                                          matchType:terms.matchType
                                        queryValues:textObject(terms.queryValue)
                                   returnAttributes:textObject(terms.returnAttributes)
                                     maximumResults:terms.maximumResults
                                              error:&problem];
            if (query) return std::make_unique<FrameworkQuery>(query);
            error = errorOf(problem);
            return nullptr;
        }
    }
};

FrameworkDirectory frameworkDirectory;

} // namespace

Service<Directory> directoryService{&frameworkDirectory};

} // namespace platform

@implementation OstlerQueryDelegate

- (void)query:(ODQuery*)query foundResults:(NSArray*)results error:(NSError*)problem {
    (void)query;
    if (!target.foundResults) return;
    @autoreleasepool {
        const platform::DirectoryError error = platform::errorOf(problem);
        const platform::DirectoryRecords records = platform::recordsOf(results);
        target.foundResults(target.object, source, results ? &records : nullptr, problem ? &error : nullptr);
    }
}

@end
