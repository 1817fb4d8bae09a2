"""What a full run on the demo machine has to yield: every row of every set, in the order of the rows.

Written from what is promised to those who read the archive, not from the program: a change here changes that promise.
"""

import collections

LOG, CRASH = "DIAGNOSTIC_TYPE_LOG_ALL", "DIAGNOSTIC_TYPE_CRASH_REPORT_ALL"
SAMPLE, CONFIG = "DIAGNOSTIC_TYPE_SAMPLE_ALL", "DIAGNOSTIC_TYPE_CONFIGURATION_ALL"

# type and name: as in the manifest. origin: likewise. files: the archived ones, where each lies below the drive (logs
# and dumps) or its bare name (generated texts). errors: regular expressions, each for one message. exit: the exit code,
# None where nothing runs, ANY where it depends on the system.
Row = collections.namedtuple("Row", "type name origin files errors exit", defaults=([], [], None))
ANY = object()

PROGRAMS, DATA, SOFTWARE = r"C:\Program Files\Velqor", r"C:\ProgramData\Velqor", r"HKLM\SOFTWARE\Velqor"
OXM, PORTAVO = "Program Files/Velqor/OXM", "Program Files/Velqor/Portavo"
ACCESS_LOGS, DLP_LOGS = "ProgramData/Velqor/Lumora Access Agent/Logs", "ProgramData/Velqor/DLP/logs"


def family(stem, extension):
    """A file and the nine rotated ones that sort first: ten of one base name, the most that are taken."""
    return [stem + extension, *(f"{stem}.{number}{extension}" for number in range(9))]


def skipped(path):
    return rf"^Skipped file C:\\{path} as extension copier reached copyable limit\.$"


def too_large(path):
    return (rf"^Excluded file 'C:\\{path}' \(200 MB\) because it exceeds the maximum file size limit of 200 MB\.$")


def executable(path):
    return rf"^The file 'C:\\{path}' is an executable binary and will be ignored\.$"


def not_regular(path):
    return rf"^The file 'C:\\{path}' is not a regular file\.$"


# The patterns of paths in messages.
P_OXM, P_PORTAVO = r"Program Files\\Velqor\\OXM", r"Program Files\\Velqor\\Portavo"
P_ACCESS, P_DLP = r"ProgramData\\Velqor\\Lumora Access Agent\\Logs", r"ProgramData\\Velqor\\DLP\\logs"

MACHINE_LOGS = [
    Row(LOG, "*.log", PROGRAMS + r"\OXM",
        [*(f"{OXM}/oxm{suffix}.log" for suffix in ("", ".1", ".2", ".3", ".4", ".5", ".6", ".7", ".10", ".11")),
         f"{OXM}/Service/service.log", f"{OXM}/Probe/Réseau/probe.log"],
        [too_large(rf"{P_OXM}\\history\.log"), executable(rf"{P_OXM}\\hostprobe\.log"), rf"C:\\{P_OXM}\\oxm\.05\.log",
         skipped(rf"{P_OXM}\\oxm\.8\.log"), skipped(rf"{P_OXM}\\oxm\.9\.log")]),
    Row(LOG, "*.log, *.old, vq_pv_hrpt.xml, update_tmp.bat", PROGRAMS + r"\Portavo",
        [*family(f"{PORTAVO}/VqPVS", ".log"), *family(f"{PORTAVO}/VqPVS", ".old"), f"{PORTAVO}/vq_pv_hrpt.xml"],
        [executable(rf"{P_PORTAVO}\\VqPVS\.00\.log"), skipped(rf"{P_PORTAVO}\\VqPVS\.9\.log"),
         skipped(rf"{P_PORTAVO}\\VqPVS\.9\.old")]),
    Row(LOG, "*.log, LumoraAccessAgentLog.etl.000, LumoraAccessAgentLog.etl.001, LumoraAccessAgentLog.etl.002, "
             "LumoraAccessAgentLog.etl.003, LumoraAccessAgentLog.etl.004, LumoraAccessAgentLog.etl.005",
        DATA + r"\Lumora Access Agent\Logs",
        [*family(f"{ACCESS_LOGS}/access", ".log"),
         *(f"{ACCESS_LOGS}/LumoraAccessAgentLog.etl.00{number}" for number in (0, 1, 2, 3))],
        [skipped(rf"{P_ACCESS}\\access\.9\.log"), too_large(rf"{P_ACCESS}\\LumoraAccessAgentLog\.etl\.004"),
         not_regular(rf"{P_ACCESS}\\LumoraAccessAgentLog\.etl\.005")]),
    Row(LOG, "*.txt", DATA + r"\DLP\logs", [*family(f"{DLP_LOGS}/dlp", ".txt"), f"{DLP_LOGS}/audit/audit.txt"],
        [skipped(rf"{P_DLP}\\dlp\.9\.txt")]),
    Row(LOG, "setupapi.log", r"C:\WINDOWS", ["windows/setupapi.log"]),
    Row(LOG, "setupapi.dev*.log, setupapi.app*.log", r"C:\WINDOWS\inf",
        [*family("windows/inf/setupapi.dev", ".log"), *family("windows/inf/setupapi.app", ".log")],
        [skipped(r"WINDOWS\\inf\\setupapi\.dev\.9\.log"), skipped(r"WINDOWS\\inf\\setupapi\.app\.9\.log")]),
    Row(LOG, "VqPlapApp.log", r"C:\WINDOWS\system32", ["windows/system32/VqPlapApp.log"]),
]

# {user} is the profile's name. Of these files, which every profile has, the exceptions are below.
USER_LOGS = [
    Row(LOG, "Logs", r"C:\users\{user}\AppData\Local\Velqor\Lumora Access Agent\Logs",
        ["users/{user}/AppData/Local/Velqor/Lumora Access Agent/Logs/ui.log"]),
    Row(LOG, "VqPVA.log, VqPVA.log.old", r"C:\users\{user}\AppData\Local\Velqor\Portavo",
        ["users/{user}/AppData/Local/Velqor/Portavo/VqPVA.log",
         "users/{user}/AppData/Local/Velqor/Portavo/VqPVA.log.old"]),
    Row(LOG, "ViewpaneUI", r"C:\users\{user}\AppData\Local\Velqor\OXM\ViewpaneUI",
        ["users/{user}/AppData/Local/Velqor/OXM/ViewpaneUI/viewpane-ui.log"]),
    Row(LOG, "Viewpane", r"C:\users\{user}\AppData\Local\Velqor\OXM\Viewpane",
        ["users/{user}/AppData/Local/Velqor/OXM/Viewpane/viewpane.log",
         "users/{user}/AppData/Local/Velqor/OXM/Viewpane/PANE.TXT"],
        [not_regular(r"users\\{user}\\AppData\\Local\\Velqor\\OXM\\Viewpane\\cache")]),
]

CONFIGURATION = [
    Row(CONFIG, r"HKLM\SOFTWARE\Velqor\Portavo and HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Authentication"
                r"\Credential Provider Filters", SOFTWARE + r"\Portavo", ["regval.txt"]),
    Row(CONFIG, r"SOFTWARE\Velqor\OXM", SOFTWARE + r"\OXM", ["registry-oxm.txt"]),
    Row(CONFIG, r"SOFTWARE\Velqor\OXM\Config", SOFTWARE + r"\OXM\Config", ["registry-oxm-config.txt"]),
    Row(CONFIG, r"SOFTWARE\Velqor\Lumora Access Agent", SOFTWARE + r"\Lumora Access Agent",
        ["lumora-access-agent.txt"]),
]

SAMPLES = [
    *(Row(SAMPLE, command, command, [file], [], ANY) for command, file in (
        ("route print", "RoutePrint.txt"),
        ("ipconfig /all", "IpConfig.txt"),
        ("wmic nicconfig list full", "NicConfig.txt"),
        ("netsh interface ipv4 show interfaces level = verbose", "NicDetails.txt"),
        ("netstat -n", "NetStat.txt"),
        ("systeminfo", "SystemInfo.txt"),
        ("wmic process list full", "ProcessInfo.txt"),
        ("wmic service where state='running' list full", "ServiceInfo.txt"),
        ("wmic sysdriver where state='running' list full", "DriverInfo.txt"))),
    Row(SAMPLE, r"HKLM\SYSTEM\CurrentControlSet\services\Tcpip\Linkage\Bind",
        r"HKLM\SYSTEM\CurrentControlSet\services\Tcpip\Linkage", ["TcpipBind.txt"]),
]

TOOL = [Row(SAMPLE, name, rf'"{PROGRAMS}\Lumora Access Agent\lacli.exe" {arguments}', [file], [],
            None if name == "traffic rdns export" else 0)
        for name, arguments, file in (
            ("epm status", "epm status", "lacli_epm_status.log"),
            ("status", "status", "lacli_status.log"),
            ("traffic log", "traffic log", "lacli_traffic_log.log"),
            ("traffic rdns export", "traffic rdns export lacli_traffic_rdns.log", "lacli_traffic_rdns.log"),
            ("traffic show", "traffic show", "lacli_traffic_show.log"),
            ("tunnel", "tunnel", "lacli_tunnel.log"))]

MACHINE_DUMPS = [
    Row(CRASH, "VqPVS.dmp", PROGRAMS + r"\Portavo", [f"{PORTAVO}/VqPVS.dmp"]),
    Row(CRASH, "*.dmp", PROGRAMS + r"\OXM", [*family(f"{OXM}/oxm", ".dmp"), f"{OXM}/crashes/service.dmp"],
        [skipped(rf"{P_OXM}\\oxm\.9\.dmp")]),
]

USER_DUMPS = [
    Row(CRASH, "VqPVS.dmp, VqPVA.dmp", r"C:\users\{user}", ["users/{user}/VqPVA.dmp"]),
    Row(CRASH, "VqPVA.dmp", r"C:\users\{user}\AppData\Local\Velqor\Portavo",
        ["users/{user}/AppData/Local/Velqor/Portavo/VqPVA.dmp"]),
]

# What is not as in every profile: (user, row's name) -> files taken away, files added, errors added.
EXCEPTIONS = {
    ("anna", "VqPVA.log, VqPVA.log.old"): (
        ["users/anna/AppData/Local/Velqor/Portavo/VqPVA.log.old"], [],
        [too_large(r"users\\anna\\AppData\\Local\\Velqor\\Portavo\\VqPVA\.log\.old")]),
    ("anna", "Viewpane"): ([], [], [too_large(r"users\\anna\\AppData\\Local\\Velqor\\OXM\\Viewpane\\history\.log")]),
    ("default", "ViewpaneUI"): (["users/default/AppData/Local/Velqor/OXM/ViewpaneUI/viewpane-ui.log"], [], []),
    ("Zoë Müller", "VqPVS.dmp, VqPVA.dmp"): ([], ["users/Zoë Müller/VqPVS.dmp"], []),
}

def of_user(rows, user):
    for row in rows:
        less, more, errors = EXCEPTIONS.get((user, row.name), ([], [], []))
        files = [name.format(user=user) for name in row.files]
        yield row._replace(origin=row.origin.format(user=user), files=[*(set(files) - set(less)), *more],
                           errors=[*(error.replace("{user}", user) for error in row.errors), *errors])


def rows_of_full_run(users):
    logs, dumps = list(MACHINE_LOGS), list(MACHINE_DUMPS)
    for user in users:
        logs += of_user(USER_LOGS, user)
        dumps += of_user(USER_DUMPS, user)
    return logs + CONFIGURATION + SAMPLES + TOOL + dumps


def types(profiles, kinds=(LOG, CONFIG, SAMPLE, CRASH), tool=False):
    """The types of the manifest's rows in order, with the number of each."""
    counts = {LOG: 7 + 4 * profiles, CONFIG: 4, SAMPLE: 16 if tool else 10, CRASH: 2 + 2 * profiles}
    return [(kind, counts[kind]) for kind in (LOG, CONFIG, SAMPLE, CRASH) if kind in kinds]


def tool_text(arguments, output, exit_code=0):
    return (f'Command: "{PROGRAMS}\\Lumora Access Agent\\lacli.exe" {arguments}\nExit code: {exit_code}\n'
            f"Output:\n{output}\n")


# The generated texts that are known to the letter but for {time} and, of a multi-string value, what follows its first
# text, {unreadable}; their lines end with CR LF in the archive.
TEXTS = {
    "regval.txt": r"""Credential Provider Filters:
SOFTWARE\Microsoft\Windows\CurrentVersion\Authentication\Credential Provider Filters\{9a4b7b02-5d33-4b6e-8f5c-2a1c3f0e7d55} | Portavo filter | {time}
SOFTWARE\Microsoft\Windows\CurrentVersion\Authentication\Credential Provider Filters\{b0e1c8d2-7a44-4f0b-9c13-52d6f7a9e810} | (value not set) | {time}

SSO cache:
SSO cache is not empty.

PreferredIP:10.20.0.7
Prelogon:1
Wrap CP Guid:
{3d0f3c4a-6c1b-4a55-9b0e-0d6a3b6f0c11}
Settings:
Backup=(type 11, 8 bytes)
Domains=example.com, example.net
Expiry=4294967295
Label=café �
Portal=vpn.example.com
Retries=3
Token=(type 4, 0 bytes)
""",
    "registry-oxm.txt": r"""Keyname: SOFTWARE\Velqor\OXM
[String] (Default) = Velqor OXM
[String]  = Velqor OXM
[String] Comment = 
Value DeviceId of type 3 ignored
[String] Path = C:\Program Files\Velqor\OXM\
[DWord] ReportInterval = 60

[Multistring] Servers = oxm1.example簠{unreadable}
[String] Version = 7.4.1
""",
    "registry-oxm-config.txt": r"""Keyname: SOFTWARE\Velqor\OXM\Config
[String] (Default) = (value not set)
[String] LogLevel = info
[DWord] MaxQueue = 4294967295
[String] Tenant = Example GmbH, Zürich
""",
    "lumora-access-agent.txt": r"""Keyname: SOFTWARE\Velqor\Lumora Access Agent
[String] (Default) = (value not set)
[String] InstalledBy = setup
[String] Mode = tunnel
Keyname: SOFTWARE\Velqor\Lumora Access Agent\Profiles
[String] (Default) = work
[String]  = work
[DWord] Count = 2
Keyname: SOFTWARE\Velqor\Lumora Access Agent\Profiles\work
[String] (Default) = (value not set)
[String] Gateway = gw.example.com
Keyname: SOFTWARE\Velqor\Lumora Access Agent\State
""",
    "TcpipBind.txt": "\\Device\\eth0\n\\Device\\eth1\n\n",
    "lacli_epm_status.log": tool_text("epm status", "Posture: compliant\nLast check: 2024-03-01 07:05:09\n"),
    "lacli_status.log": tool_text("status", "Service: running\nSigned in: yes\n"),
    "lacli_traffic_log.log": tool_text("traffic log", "07:05:09 10.20.0.7:443 tunnel\n07:05:10 10.20.0.9:443 tunnel\n"),
    "lacli_traffic_rdns.log": "10.20.0.7 files.example.com\n10.20.0.9 mail.example.com\n",
    "lacli_traffic_show.log": tool_text("traffic show", "Sessions: 1\nOldest: 07:05:09\n"),
    "lacli_tunnel.log": tool_text("tunnel", "Tunnel: connected\nGateway: gw.example.com\n"),
}
