"""What maintainer scripts would do to the update, as far as their text tells."""

import re

from .words import error, shown, warning

ASSISTANT = r"update-assistant|ota\.pid"
NOW = ("preinst", "postinst")  # of the package that is installed; the others run when it is replaced

# Words that stand before a command, and their options.
PREFIXES = {"exec", "nohup", "sudo", "setsid", "command", "env", "busybox", "then", "do", "else", "elif", "if",
            "while", "until", "!", "time", "builtin", "nice", "ionice", "trap"}
TELLING = {"echo", "printf", "logger", "wall", ":", "true", "[", "test", "grep", "cat", "touch", "chmod", "chown", "rm",
           "cp", "mv", "ln", "install", "mkdir", "ls"}
POWER = {"reboot", "poweroff", "halt", "shutdown", "telinit", "kexec"}
KILLERS = {"kill", "killall", "killall5", "pkill", "skill", "fuser", "start-stop-daemon"}
STOPS = {"stop", "restart", "kill", "try-restart", "force-reload", "disable", "mask", "isolate", "reload-or-restart",
         "condrestart", "force-restart", "down", "force-stop"}
SYSTEM_STATES = {"reboot", "poweroff", "halt", "kexec", "rescue", "emergency", "isolate", "soft-reboot", "suspend",
                 "hibernate", "exit", "switch-root"}


def findings(package):
    """The findings about the maintainer scripts of a package."""
    for name, script in package.scripts.items():
        yield from _form(package.file, name, script)
        ends = _ending_command(script["text"])
        if ends:
            yield _ends_the_assistant(package.file, name, ends)


def brings_firmware(package):
    """Whether a script may put the firmware into place."""
    return any(re.search(r"root/mcu|UpdataSystem|/mcu\b", package.scripts[name]["text"])
               for name in NOW if name in package.scripts)


def _form(file, name, script):
    first = script["text"].partition("\n")[0]
    if not script["mode"] & 0o100:
        yield error(file, f"{shown(file)}: its {name} is not executable (mode {script['mode']:o}). It cannot be run, "
                    "and the update ends there.", f"Make it executable: chmod 755 {name}.")
    if "\r" in first:
        yield error(file, f"{shown(file)}: the first line of its {name} ends in CR LF, so its interpreter is not "
                    "found, and the update ends there.", "Save the script with line feeds only.")
    elif first.startswith("#!") and first[2:].split()[:1] not in (["/bin/sh"], []):
        yield warning(file, f"{shown(file)}: its {name} needs {shown(first[2:].split()[0])}. Without it on the "
                      "machine the update ends there.",
                      "Write it for /bin/sh, or make sure that the machine has the interpreter.")


def _ends_the_assistant(file, name, command):
    if name in NOW:
        return error(file, f"{shown(file)}: its {name} would end the update that installs it: {shown(command)}",
                     "Remove this from the script. The machine is switched off and on after the update.")
    return warning(file, f"{shown(file)}: its {name} would end a later update that replaces the package: "
                   f"{shown(command)}", "Remove this from the script.")


def _ending_command(text):
    """The first line that ends the program or the machine, or an empty text."""
    lines = [line for line in text.replace("\\\n", " ").splitlines() if not re.match(r"\s*#", line)]
    names_the_assistant = any(re.search(ASSISTANT, line) for line in lines)
    for line in lines:
        for words in _commands(line):
            if _ends(words, line, names_the_assistant):
                return line.strip()
    return ""


def _commands(line):
    """Yields the words of each command of a line, without what stands before a command."""
    line = re.sub(r"(^|\s)#.*", "", line)
    for part in re.split(r"[;&|(){}`\n]+|\bin\b", line.replace('"', " ").replace("'", " ")):
        words = part.split()
        while words and (words[0] in PREFIXES or words[0].startswith("-") or re.fullmatch(r"\w+=\S*|\d+s?", words[0])
                         or words[0] in ("sh", "/bin/sh", "bash", "timeout")):
            words.pop(0)
        if words:
            yield words


def _ends(words, line, names_the_assistant):
    name, *rest = words
    file, name = name, name.rpartition("/")[2]
    if name in TELLING:
        return name == "echo" and "sysrq-trigger" in line
    if name in POWER or name == "init" and rest[:1] and rest[0] in ("0", "6"):
        return not ("-c" in rest and name == "shutdown")
    if name in ("update-assistant", "update-assistant-start"):
        return True  # the new instance kills the old one
    is_of_assistant = re.search(r"update-assistant", line)
    if name in KILLERS:
        return _kills(name, rest, line, names_the_assistant)
    if name == "systemctl":
        verbs = [word for word in rest if not word.startswith("-")]
        return bool(verbs) and (verbs[0] in SYSTEM_STATES or verbs[0] in STOPS and bool(is_of_assistant))
    if name in ("service", "invoke-rc.d", "rc-service", "sv", "initctl") or "init.d/" in file:
        return bool(is_of_assistant) and any(word in STOPS | {"start"} for word in rest)
    return False


def _kills(name, rest, line, names_the_assistant):
    if name == "killall5":
        return True
    if name == "start-stop-daemon":
        return bool(re.search(ASSISTANT, line)) and any(word in ("-K", "--stop") for word in rest)
    if name == "kill":
        # With a variable, the process may be the one of which the script knows the pid file or the name.
        if "-1" in rest[1:] or re.search(ASSISTANT, line):
            return True
        return names_the_assistant and "$" in line and "-0" not in rest
    return bool(re.search(ASSISTANT, line))
