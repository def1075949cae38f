// acl.h - the file of rules: who may read (subscribe) and write (publish) what.
//
//   read      news/#                 rules before the first section are for everybody
//   readwrite clients/%c/#           %c is the client's id, %u its user
//
//   user alice                       for this user
//   clientid  alice-*                who may connect with no other ids than those of such lines, if there are any
//   write     home/+/lamp
//
//   client sensor-*                  for client ids of this form; * stands for any characters
//   write     sensors/%c/#
//
// What no rule allows is refused. There are no rules that refuse, so their order does not matter.
#ifndef TARN_BROKER_ACCESS_ACL_H
#define TARN_BROKER_ACCESS_ACL_H

#include "text_file.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::broker {

struct Asker {
    std::string_view client_id;
    std::string_view user; // empty where users are not known
};

// '*' in the pattern stands for any characters, also none.
bool matches_pattern(std::string_view pattern, std::string_view text);

class Acl {
public:
    // Without users known, rules that speak of them are a mistake: anybody could claim a name.
    Mistake parse(const std::string &path, std::string_view text, bool users_known);

    bool is_empty() const; // no rule at all, sections or not

    bool may_have_id(const Asker &asker) const; // the user this id
    bool may_subscribe(const Asker &asker, std::string_view filter) const;
    bool may_publish(const Asker &asker, std::string_view topic) const;

private:
    struct Rule {
        bool        read, write;
        std::string filter;
    };
    using Rules = std::vector<Rule>;
    struct User {
        std::vector<std::string> ids; // patterns; none: any id
        Rules                    rules;
    };
    struct Section {
        std::string pattern;
        Rules       rules;
    };
    struct Reader;
    template <class Allows> bool any_rule(const Asker &asker, Allows allows) const;

    Rules                                    everybody_;
    std::map<std::string, User, std::less<>> users_;
    std::vector<Section>                     clients_;
};

} // namespace tarn::broker

#endif
