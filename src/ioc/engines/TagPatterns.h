#pragma once

// What the tags look for where a manifest says nothing else (PCRE). They are settings that the authors of manifests
// know by heart, oddities included: change none.
namespace zagent::ioc::internal::tag_patterns {

// Credentials, logs and settings that an intruder reads.
inline constexpr const char* kCredentialAccessPaths =
    R"re(^/(?:home/[^/]+/\.(?:ssh/(?:authorized_keys|id_rsa(?:\.pub)?)|aws/c(?:redentials|onfig)|.bash_history)|var/log/(?:apache2/access\.lo|nginx/access\.lo|(?:au(?:dit/audit|th)|mysql/error|kernel|boot)\.lo|syslo|dmes)g.*|etc/apt/sources\.list\.d/.*|(?:etc/(?:network/interface|sudoer)|var/log/message)s|etc/(?:apt/sources\.list|hosts)|etc/ssh/sshd_config|etc/(?:hosts\.allow|resolv\.conf|s(?:ysctl\.conf|hadow)|hosts\.deny|rc\.local|systemd/.*|init\.d/.*|passwd|group|rc\.d/.*)|(?:var/spool|etc)/cron.*|usr/local/etc/.*|var/log/secure|etc/fstab)$)re";

// The class in front of "sh" holds single letters: zsh and ksh are in it, bash and dash are not.
inline constexpr const char* kCredentialAccessPrograms =
    R"re(^/(?:(?:usr/bin/|bin/)(?:strings|paste|head|tail|more|less|nano|vim|c[au]t|tac|vi|nl|cp|mv|unshadow|p(?:ython|erl).*|[ba|z|k|da]sh))$)re";

// Where programs are dropped.
inline constexpr const char* kExecutionPaths =
    R"re(^/(?:var/(?:(?:(?:(?:(?:log/)?|run/)tmp|lib)|(?:log|run))|cache)/.*|(?:usr/share|(?:(?:usr/)?tmp|opt|run))/.*)$)re";

inline constexpr const char* kExecutionPrograms =
    R"re(^/(?:usr/bin/(?:p(?:ython|erl).*|[bd]ash)|bin/(?:p(?:ython|erl).*|[bd]ash))$)re";

// Options of a shell whose value is a file that is no script.
inline constexpr const char* kStartupFileOption = R"re(^--(?:init-|rc)file$)re";

inline constexpr const char* kExfiltrationPrograms =
    R"re(^/(?:(?:bin|usr/bin|sbin|usr/sbin)/(?:sendmail|p(?:ython|erl).*|telnet|rsync|xargs|s(?:(?:sm|[fm])tp|sh|cp)|curl|ncat|wget|ftp|nc))$)re";

// What is run or loaded again later.
inline constexpr const char* kPersistencePaths =
    R"re(^/(?:usr/lib/(?:modules\-load\.d/.*\.conf|.*)|home/[^/]+/\.(?:config/(?:systemd/user.*|autostart)|(?:bash_)?profile|bash_logout|bash(?:_login|rc)|ssh/.*)|etc/(?:modules\-load\.d/.*\.conf|(?:(?:network/interfaces|ssh/sshd_config|ld\.so\.preload|at\.(?:allow|deny)|rc\.local|shadow|passwd|fstab)|resolv\.conf))|(?:(?:(?:usr/l(?:ib(?:/systemd/system|64)|ocal/etc)|etc/(?:apt/sources\.list|profile)\.d|etc/systemd/system|usr/lib/sysctl\.d|var/(?:spool/cron|www)|etc/sysconfig|etc/sysctl\.d|run/sysctl\.d|etc/(?:init|pam|rc.*)\.d|(?:usr/s?bi|s?bi)n|lib64|boot)|(?:etc/cron.*|lib))|root/\.ssh)/.*|(?:root/\.confi|etc/xd)g/autostart|etc/(?:apt/sources\.list|profile|cron.*)|root/\.(?:bash_)?profile|root/\.bash_logout|root/\.bash(?:_login|rc))$)re";

// Nobody asks for it yet: the memory of other processes.
inline constexpr const char* kProcessMemoryFiles = R"re(^/proc/[0-9]+/(?:m(?:(?:ap_files/.*|em)|aps)|smaps)$)re";

}  // namespace zagent::ioc::internal::tag_patterns
