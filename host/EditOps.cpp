#include "EditOps.h"

#include "console/Nearest.h"
#include "console/Status.h"

#include <algorithm>

namespace ffdhost {

namespace {

enum class Arguments { None, Position, Length, Path, LengthAndPath };

struct Grammar {
    char const* name;
    EditOp::Kind kind;
    Arguments arguments;
};

constexpr Grammar kGrammar[] = {
    {"seek", EditOp::Kind::Seek, Arguments::Position},
    {"insert", EditOp::Kind::Insert, Arguments::Path},
    {"overwrite", EditOp::Kind::Overwrite, Arguments::Path},
    {"delete", EditOp::Kind::Delete, Arguments::Length},
    {"undo", EditOp::Kind::Undo, Arguments::None},
    {"read", EditOp::Kind::Read, Arguments::LengthAndPath},
    {"show", EditOp::Kind::Show, Arguments::None},
    {"map", EditOp::Kind::Map, Arguments::None},
    {"crash", EditOp::Kind::Crash, Arguments::None},
    {"store", EditOp::Kind::Store, Arguments::None},
    {"restore", EditOp::Kind::Restore, Arguments::None},
};

[[noreturn]] void bad_operation(std::string const& name, std::string const& words) {
    throw Failure(name, "", FFD_INVALID_PARAMETER, words,
                  "See 'ffdhost edit --help' for the operations; nothing was changed.");
}

Grammar const& grammar_of(std::string const& name) {
    auto const* const found = std::find_if(std::begin(kGrammar), std::end(kGrammar),
                                           [&](Grammar const& each) { return each.name == name; });
    if (found == std::end(kGrammar)) {
        std::vector<std::string> names;
        for (Grammar const& each : kGrammar) {
            names.emplace_back(each.name);
        }
        bad_operation("edit", "'" + name + "' is no operation" + did_you_mean(name, names));
    }
    return *found;
}

} // namespace

std::vector<EditOp> parse_edit_ops(std::vector<std::string> const& tokens) {
    std::vector<EditOp> ops;
    for (size_t next = 0; next < tokens.size();) {
        Grammar const& grammar = grammar_of(tokens[next++]);
        EditOp op{grammar.kind, grammar.name, {}, ""};
        auto const argument = [&](char const* what) -> std::string const& {
            if (next == tokens.size() || tokens[next].empty()) {
                bad_operation(op.name, "'" + op.name + "' needs " + what);
            }
            return tokens[next++];
        };
        switch (grammar.arguments) {
        case Arguments::None:
            break;
        case Arguments::Position:
            op.position = parse_position(op.name, argument("a position"));
            break;
        case Arguments::Length:
            op.position = parse_length(op.name, argument("a length"));
            break;
        case Arguments::Path:
            op.path = argument("an MP3 file");
            break;
        case Arguments::LengthAndPath:
            op.position = parse_length(op.name, argument("a length and an output file"));
            op.path = argument("an output file");
            break;
        }
        ops.push_back(op);
    }
    return ops;
}

} // namespace ffdhost
