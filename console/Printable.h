// Makes texts that others have chosen (names, paths, what a file holds) fit to be shown: nothing in
// them reaches a terminal as a command, or a shell as more than one word.
#pragma once

#include <string>
#include <string_view>

namespace ffdhost {

// The text with everything escaped that is no visible letter: \x1B for a control character
// (ASCII ones, tab and line end included), \u009B for one of the second set, \u202E for what
// turns the direction of writing, ends a line or has no place in a text, and \xFF for a byte that
// is not UTF-8. What stays is valid UTF-8. All that print_line, print_table, print_warning and
// print_failure are given goes through here; anything else that prints a text of others calls it.
std::string printable(std::string_view text);

// The same within a JSON document that was dumped as UTF-8: there each becomes \u202E.
std::string printable_json(std::string_view document);

// A name as one word of a command to be typed, whatever is in it, already printable. A command that
// is advised stands at the end of its sentence, without quotes around it, since those of the word
// would end them, and has "--" before its names, since a name may begin with a dash:
//   "Run: ffdhost recover --copy -- " + shell_word(file)
std::string shell_word(std::string_view name);

} // namespace ffdhost
