// ffdhost: the command line.
#include "console/Nearest.h"
#include "console/System.h"
#include "EachFile.h"
#include "host/commands.h"
#include "host/Obstacle.h"
#include "map/DirFile.h"
#include "map/map.h"
#include "support/support.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <functional>

namespace {

using namespace ffdhost;

char const* const kPositions =
    "Positions and lengths count the audio from its first frame: bytes (12345) or a time\n"
    "(750ms, 62.5s, 1m30s, 1:02.5, 1:02:03.5), turned into bytes with the bitrate of the file.\n"
    "A position may also be counted from the end (end, end-3s) and, in 'edit', from the\n"
    "present one (+5s, -5s).\n";

char const* const kFolders =
    "Of a folder the sound files are taken that lie directly in it, those of its folders not: "
    "what\n"
    "ends in .mp3, and what only a .DIR file or a close marker tells of. Links to files are\n"
    "followed. With more than one file a summary stands at the end; a file that fails keeps no\n"
    "other from its turn, and the exit code is the worst.\n";

char const* const kFiles = "MP3 files, and folders of such";

struct Arguments {
    std::string driver;
    bool json = false;
    double wait = 0; // seconds
    std::string file;
    std::vector<std::string> files;
    std::string svg;
    ReadOptions read;
    RecordOptions record;
    SplitOptions split;
    std::vector<std::string> operations;
    bool force = false;
    bool dryRun = false;
    bool snap = false;
    bool backup = false;
    RecoverOptions recover;
};

using Command = std::function<Outcome(Driver const&)>;

void add_file(CLI::App& command, std::string& file, std::string const& words) {
    command.add_option("FILE", file, words)->type_name(" ")->required();
}

void add_list(CLI::App& command, std::string const& name, std::vector<std::string>& list,
              std::string const& words) {
    command.add_option(name, list, words)
        ->type_name(" ")
        ->required()
        ->expected(1, CLI::detail::expected_max_vector_size);
}

// What is to be run if the command line names this command.
void when_chosen(CLI::App& app, Command& command, Command const& run) {
    app.callback([&command, run] { command = run; });
}

void add_info(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const info = app.add_subcommand(
        "info", "Show the format, the lengths and the tags of MP3 files; changes nothing");
    add_list(*info, "FILE", arguments.files, kFiles);
    info->footer(std::string(kFolders) +
                 "\nExamples:\n  ffdhost info dictation.mp3\n  ffdhost info dictations");
    when_chosen(*info, command, [&](Driver const& driver) {
        return run_each("info", arguments.files, arguments.json, [&](std::string const& file) {
            return run_info(driver, file, arguments.json);
        });
    });
}

void add_read(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const read = app.add_subcommand(
        "read", "Write the audio of an MP3 file, without its tags, to a file or standard output");
    add_file(*read, arguments.file, "an MP3 file");
    read->add_option("--from", arguments.read.from, "position to begin at")
        ->type_name("POS")
        ->capture_default_str();
    read->add_option("--length", arguments.read.length, "how much to read (default: to the end)")
        ->type_name("N");
    read->add_option("-o,--output", arguments.read.output,
                     "file to write (default, and '-': standard output)")
        ->type_name("OUT");
    read->add_flag("--force", arguments.read.force,
                   "write also where a crash has left edits for a file of that name, and set them "
                   "aside");
    read->footer(std::string(kPositions) +
                 "\nThe file is opened for reading only. Edits that a crash left in a .DIR file\n"
                 "beside it are not seen: 'ffdhost recover FILE' opens it for writing and folds\n"
                 "them in.\n\n"
                 "Example:\n  ffdhost read dictation.mp3 --from 1:02.5 --length 10s -o part.mp3");
    when_chosen(*read, command, [&](Driver const& driver) {
        return run_read(driver, arguments.file, arguments.read, arguments.json);
    });
}

void add_map(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const map =
        app.add_subcommand("map", "Show the blocks that make up the dictation; changes nothing");
    add_file(*map, arguments.file, "an MP3 file");
    map->add_option("--svg", arguments.svg,
                    "draw the blocks as a picture into a file ('-': standard output)")
        ->type_name("OUT");
    map->add_flag(
        "--force", arguments.force,
        "draw also where a crash has left edits for a file of that name, and set them aside");
    map->footer(
        "The blocks are those of the .DIR file that a crash left beside the file, or else all\n"
        "the audio of the file as one block. An audio position says where bytes lie behind the\n"
        "first frame, a dictation position where they play.\n\n"
        "Examples:\n  ffdhost map dictation.mp3\n"
        "  ffdhost map dictation.mp3 --svg dictation.svg");
    when_chosen(*map, command, [&](Driver const& driver) {
        return run_map(driver, arguments.file, arguments.svg, arguments.force, arguments.json);
    });
}

void add_edit(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const edit = app.add_subcommand(
        "edit", "Open an MP3 file for writing, do the operations in order, and close it");
    add_file(*edit, arguments.file, "an MP3 file with a constant bitrate");
    add_list(*edit, "OP", arguments.operations, "operations with their arguments, see below");
    edit->add_flag(
        "--force", arguments.force,
        "enter clips whose format does not fit the dictation, delete all of it, and read "
        "to where a crash has left edits");
    edit->add_flag("--snap", arguments.snap,
                   "move positions and lengths to the nearest border of frames");
    edit->add_flag("--backup", arguments.backup,
                   "keep a copy first, in a new folder beside the file");
    edit->add_flag("--dry-run", arguments.dryRun,
                   "change nothing; do it in memory and show what would change on the disk");
    edit->footer(
        "Operations:\n"
        "  seek POS          go to a position\n"
        "  insert MP3        enter the audio of another file at the position; '-' is standard\n"
        "                    input\n"
        "  overwrite MP3     the same, and take out as much behind it\n"
        "  delete LENGTH     take out audio behind the position\n"
        "  undo              bring back what the last delete took out\n"
        "  read LENGTH OUT   write audio from the position on to a file\n"
        "  show              show the position and the lengths\n"
        "  map               show the blocks of the dictation, as the .DIR file has them\n"
        "  store, restore    keep the edit state, and go back to it\n"
        "  crash             end the process without a close, as a crash would (exit code 3)\n\n" +
        std::string(kPositions) +
        "\nEverything is checked before the file is opened. If an operation fails, the ones\n"
        "behind it are not done, and the file is closed with the edits so far. Ctrl-C ends the\n"
        "program without a close, unless it records: the next open for writing finds the edits.\n\n"
        "Example:\n  ffdhost edit dictation.mp3 seek 0:10 insert addition.mp3 delete 2.5s show");
    when_chosen(*edit, command, [&](Driver const& driver) {
        EditOptions options;
        options.readDirectory = read_dir_file;
        options.force = arguments.force;
        options.snap = arguments.snap;
        if (arguments.backup && !arguments.dryRun) {
            keep_backup(arguments.file, arguments.json);
        }
        return arguments.dryRun ? run_dry_edit(arguments.file, arguments.operations, options,
                                               arguments.backup, arguments.json)
                                : run_edit(driver, arguments.file, arguments.operations, options,
                                           arguments.json);
    });
}

void add_record(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const record = app.add_subcommand(
        "record", "Record an MP3 stream from standard input into an MP3 file, as it comes");
    add_file(*record, arguments.file, "an MP3 file with a constant bitrate");
    record->add_option("--at", arguments.record.at, "position to begin at")
        ->type_name("POS")
        ->capture_default_str();
    record
        ->add_option("--length", arguments.record.length,
                     "how much to record (default: until the stream ends)")
        ->type_name("N");
    record->add_flag("--overwrite", arguments.record.overwrite,
                     "record over what is there: as much is taken out behind the recording, once\n"
                     "a minute and at the end");
    record->add_flag("--new", arguments.record.create,
                     "make the file from the first frame of the stream, if there is none");
    record->add_flag("--backup", arguments.backup,
                     "keep a copy first, in a new folder beside the file");
    record->add_flag(
        "--force", arguments.record.force,
        "take a stream of another format than the file; with --new, make it also where "
        "a crash\nhas left edits for a file of that name, and set them aside");
    record->footer(std::string(kPositions) +
                   "\nThe position goes to the nearest border of frames. Tags and the info frame "
                   "of the\nencoder are left out. A stream of another format or bitrate is refused "
                   "before anything\nis written.\n\n"
                   "What has come is on the disk half a second later: a crash or a power failure "
                   "loses\nno more, and the next open for writing finds the rest. The end of the "
                   "stream, Ctrl-C,\nSIGTERM and SIGHUP end the recording and close the file; a "
                   "second Ctrl-C ends the\nprogram at once, as a crash would.\n\n"
                   "Examples:\n"
                   "  ffmpeg -f alsa -i default -ac 1 -ar 22050 -b:a 64k -f mp3 -flush_packets 1 - "
                   "|\n      ffdhost record letter.mp3\n"
                   "  arecord -f S16_LE -r 22050 | lame --cbr -b 64 - - |\n"
                   "      ffdhost record letter.mp3 --at 1:02.5 --overwrite");
    when_chosen(*record, command, [&](Driver const& driver) {
        if (arguments.backup) {
            keep_backup(arguments.file, arguments.json);
        }
        arguments.record.readDirectory = read_dir_file;
        return run_record(driver, arguments.file, arguments.record, arguments.json);
    });
}

void add_split(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const split =
        app.add_subcommand("split", "Write the parts of an MP3 file to files of their own");
    add_file(*split, arguments.file, "an MP3 file with a constant bitrate");
    add_list(*split, "AT", arguments.split.at, "positions to cut at, in order");
    split
        ->add_option("-o,--output", arguments.split.output,
                     "a folder, or how the names begin (default: as that of FILE)")
        ->type_name("PREFIX");
    split->add_flag("--force", arguments.split.force, "replace files that are there");
    split->footer(std::string(kPositions) +
                  "\nHere +5s counts from the cut in front. Each cut goes to the nearest border of "
                  "frames.\nThe parts are PREFIX-1.mp3, PREFIX-2.mp3 and so on, without tags and "
                  "without an info\nframe; joined again they are the audio of FILE, byte for byte. "
                  "FILE is only read.\n\n"
                  "Example:\n  ffdhost split letter.mp3 1m30s 3:00");
    when_chosen(*split, command, [&](Driver const& driver) {
        return run_split(driver, arguments.file, arguments.split, arguments.json);
    });
}

void add_join(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const join =
        app.add_subcommand("join", "Make an MP3 file of the audio of others, one behind the other");
    join->add_option("OUT", arguments.file, "the file to make")->type_name(" ")->required();
    add_list(*join, "FILE", arguments.files, "MP3 files of one format and constant bitrate");
    join->add_flag("--force", arguments.force, "replace OUT if it is there");
    join->footer("Tags and info frames of the files are left out, and the files are only read.\n\n"
                 "Example:\n  ffdhost join letter.mp3 letter-1.mp3 letter-2.mp3");
    when_chosen(*join, command, [&](Driver const& driver) {
        return run_join(driver, arguments.file, arguments.files, arguments.force, arguments.json);
    });
}

void add_check(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const check = app.add_subcommand(
        "check", "Tell what is wrong with MP3 files and what the next open for writing makes of "
                 "them; changes nothing");
    add_list(*check, "FILE", arguments.files, kFiles);
    check->footer(
        std::string(kFolders) +
        "\nReads the whole file and what lies beside it, and tells of frames that differ, of "
        "bytes\n"
        "that are no frames, of tags, and of what a crash has left: a .DIR file with edits, a\n"
        "close marker, copies. The last line is the verdict.\n\n"
        "Exit code 0: the file is sound, there may be notes. 1: something needs attention: an\n"
        "open for writing would fail, lose the order of edits or has edits to take over, a close\n"
        "was interrupted or would fail, or frames are cut off, differ, or have bytes between\n"
        "them.\n\n"
        "Examples:\n  ffdhost check dictation.mp3\n  ffdhost check dictations");
    when_chosen(*check, command, [&](Driver const& driver) {
        return run_each("check", arguments.files, arguments.json, [&](std::string const& file) {
            return run_check(driver, file, arguments.json);
        });
    });
}

void add_recover(CLI::App& app, Arguments& arguments, Command& command) {
    CLI::App* const recover = app.add_subcommand(
        "recover", "Say what an open for writing and a close will do to an MP3 file, and do it");
    add_file(*recover, arguments.file, "an MP3 file");
    recover->add_flag("--copy", arguments.recover.copy,
                      "keep a copy first, in a new folder beside the file");
    recover->add_flag("--info-frame", arguments.recover.infoFrame,
                      "only correct the counts of frames and bytes that an encoder has left for\n"
                      "players in a first, silent frame, and that an edit has made wrong");
    recover->footer(
        "Takes over the edits that a crash has left, settles an interrupted close, and closes the\n"
        "file. A file that has nothing of the kind beside it is left alone, and so is one that an\n"
        "open for writing, or its close, would fail on. If audio would be left out that nobody\n"
        "has deleted, as with a torn .DIR file, --copy must be given.\n\n"
        "The copy has the names of the original: the file, its .DIR file, its close marker and\n"
        "the file that the marker names. Its folder has the name of the file and '.kept', or\n"
        "'.kept1' and so on: nothing is overwritten. A symbolic link is not copied: name the\n"
        "file that it leads to.\n\n"
        "With --info-frame only those counts change, in place, and the checksum of that frame if\n"
        "it was right; a file that has edits waiting is refused. The seek table and what else the\n"
        "encoder has noted stay as they are.\n\n"
        "Example:\n  ffdhost recover --copy dictation.mp3");
    when_chosen(*recover, command, [&](Driver const& driver) {
        return run_recover(driver, arguments.file, arguments.recover, arguments.json);
    });
}

int report(Failure const& failure, Json const& command, bool json) {
    if (json) {
        print_document({{"command", command}, {"ok", false}, {"failure", failure_json(failure)}});
    } else {
        print_failure(failure);
    }
    return failure.status() == FFD_INVALID_PARAMETER ? kExitUsage : kExitFailed;
}

// What is wrong with a command line, of which `app` has read what it knows.
Failure usage_failure(CLI::App const& app, CLI::ParseError const& error) {
    std::vector<CLI::App const*> const commands = app.get_subcommands({});
    auto const chosen = app.get_subcommands();
    std::vector<std::string> options;
    auto const add_options = [&](CLI::App const& of) {
        for (CLI::Option const* const option : of.get_options()) {
            for (std::string const& name : option->get_lnames()) {
                options.push_back("--" + name);
            }
        }
    };
    add_options(app);
    std::string owner = "ffdhost";
    if (!chosen.empty()) {
        add_options(*chosen.front());
        owner += " " + chosen.front()->get_name();
    }
    std::string words = chosen.empty() ? "a command is missing" : error.what();
    for (std::string const& word : app.remaining(true)) {
        bool const isOption = word.size() > 1 && word[0] == '-' && word != "--";
        if (isOption) {
            words = "'" + word + "' is no option of '" + owner + "'" + did_you_mean(word, options);
            break;
        }
        if (chosen.empty()) {
            std::vector<std::string> names;
            names.reserve(commands.size());
            for (CLI::App const* const each : commands) {
                names.push_back(each->get_name());
            }
            words = "'" + word + "' is no command" + did_you_mean(word, names);
            break;
        }
    }
    return {"command line", "", FFD_INVALID_PARAMETER, words, "See '" + owner + " --help'."};
}

int run(std::span<char const* const> words) {
    Utf8Terminal const terminal;
    CLI::App app(
        "Looks at MP3 dictations, reads, records, edits, splits, joins, checks and recovers "
        "them.",
        "ffdhost");
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("Subcommands", "Commands");
    app.allow_windows_style_options(false); // a path may begin with '/' there too
    Arguments arguments;
    Command command;
    app.add_option("--driver", arguments.driver,
                   "the driver library (default: the one beside this program)")
        ->type_name("PATH");
    app.add_flag("--json", arguments.json, "give the result, or the failure, as a JSON document");
    app.add_option("--wait", arguments.wait,
                   "wait so long, in all, for files that other programs have in use")
        ->type_name("SECONDS")
        ->check([](std::string const& text) {
            double seconds = 0;
            bool const good = CLI::detail::lexical_cast(text, seconds) && seconds >= 0;
            return good ? std::string() : "'" + text + "' is no number of seconds";
        });
    app.set_version_flag("--version", "ffdhost " FFDHOST_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer("'ffdhost COMMAND --help' tells more about a command.\n"
               "Exit codes: 0 success, 1 an operation failed or 'check' found something, 2 a wrong "
               "command line, 3 'crash'.\n\n"
               "Example:\n  ffdhost info dictation.mp3");
    add_info(app, arguments, command);
    add_read(app, arguments, command);
    add_map(app, arguments, command);
    add_edit(app, arguments, command);
    add_record(app, arguments, command);
    add_split(app, arguments, command);
    add_join(app, arguments, command);
    add_check(app, arguments, command);
    add_recover(app, arguments, command);

    bool const json = std::find(words.begin(), words.end(), std::string("--json")) != words.end();
    // The parser takes an option with an empty value for one that is not there.
    for (size_t i = 1; i < words.size(); ++i) {
        if (*words[i] == '\0') {
            return report({"command line", "", FFD_INVALID_PARAMETER, "an argument is empty",
                           "See 'ffdhost --help'."},
                          nullptr, json);
        }
    }
    try {
        app.parse(static_cast<int>(words.size()), words.data());
    } catch (CLI::ParseError const& error) {
        if (error.get_exit_code() == 0) {
            int const code = app.exit(error); // --help and --version
            return stdout_is_written() ? code : report(stdout_failure(), nullptr, false);
        }
        return report(usage_failure(app, error), nullptr, json);
    }
    std::string const name = app.get_subcommands().front()->get_name();
    try {
        set_patience(
            std::chrono::milliseconds(static_cast<int64_t>(std::min(arguments.wait, 1e9) * 1000)));
        Driver const driver = load_driver(arguments.driver);
        Outcome const outcome = command(driver);
        if (arguments.json) {
            print_document(outcome.document);
        }
        return stdout_is_written() ? outcome.exitCode : report(stdout_failure(), name, false);
    } catch (std::exception const&) {
        return report(current_failure(arguments.file), name, arguments.json);
    }
}

} // namespace

int main(int argc, char** argv) {
    ffdhost::make_failures_visible();
    try {
        return run(ffdhost::command_line(argc, argv));
    } catch (...) {
        return ffdhost::kExitFailed;
    }
}
