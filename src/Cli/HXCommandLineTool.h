#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class HXMarkup;
class HXNativeSheet;

// The command-line tool: a table of sub-commands, each with its usage line and summary. A command
// gets its arguments (without the program and command names) and returns the exit status:
// 0 on success, 1 for bad input after one line on standard error. Main thread only.
class HXCommandLineTool {
public:
    struct Command {
        QString name;
        QString usage;
        QString summary;
        std::function<int(const QStringList &arguments)> run;
    };

    HXCommandLineTool();

    int run(const QStringList &arguments);

    // Output helpers shared by the commands.
    static void writeOutput(const QByteArray &bytes);
    // Writes "velmora-cli: <message>" as one line on standard error and returns 1.
    static int fail(const QString &message);
    // Writes the message as it stands as one line on standard error and returns 1.
    static int failLine(const QString &message);
    // Reads a whole file, or standard input for "-" or an empty path.
    static bool readInput(const QString &path, QByteArray *bytes, QString *failure);
    // Takes "--name VALUE" out of the arguments, leaving `value` alone when there is no such
    // option; false, with the status of a line on standard error, when the value is missing.
    static bool takeOption(QStringList &arguments, const QString &name, QString *value,
                           int *status);
    // A built-in markup by identifier, a user markup of the store by identifier, or a markup
    // file by path; nothing and the failure otherwise.
    static std::shared_ptr<HXMarkup> markupNamed(const QString &name, QString *failure);

private:
    void printHelp() const;

    QList<Command> m_commands;
};

// velmora-cli markups …: the user's markup store.
int HXMarkupsCommand(const QStringList &arguments);

// velmora-cli library …: a library's tree.
int HXLibraryCommand(const QStringList &arguments);

// velmora-cli sheet …: one sheet package.
int HXSheetCommand(const QStringList &arguments);

// The sheet of a package, open; nothing after a line on standard error and `status` set.
std::shared_ptr<HXNativeSheet> HXCommandLineOpenSheet(const QString &path, bool readOnly,
                                                      int *status);

// velmora-cli stats …: the counts of texts and sheets.
int HXStatsCommand(const QStringList &arguments);

// velmora-cli goal …: texts and sheets measured against a goal.
int HXGoalCommand(const QStringList &arguments);

// velmora-cli themes …: the theme store.
int HXThemesCommand(const QStringList &arguments);

// velmora-cli theme …: one theme's look.
int HXThemeCommand(const QStringList &arguments);

// velmora-cli layout …: the lines of a text laid out in a column.
int HXLayoutCommand(const QStringList &arguments);
