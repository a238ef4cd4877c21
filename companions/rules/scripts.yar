// Scripts whose own text shows what they are up to. Only files that are scripts by their first line and of a script's
// size are looked at.

private rule script_file {
  condition:
    uint16be(0) == 0x2321 and filesize < 256KB  // "#!"
}

rule reverse_shell_script {
  meta:
    verdict = "malicious"
    name = "Backdoor.Script.ReverseShell"
  strings:
    $bash = /(bash|sh)\s+-i\s*(>|>&|&>)\s*&?\s*\/dev\/(tcp|udp)\/[^\s\/]{1,255}\/[0-9]{1,5}\s+0[<>]&1/
    $exec = /exec\s+[0-9]{1,3}<>\s*\/dev\/tcp\/[^\s\/]{1,255}\/[0-9]{1,5}\s*;[^\n]{0,200}\b(sh|bash)\b[^\n]{0,40}<&[0-9]/
    $netcat = /\b(nc|ncat|netcat)\s[^\n]{0,80}-[a-z]{0,6}e\s+\/bin\/(ba|z|da)?sh\b/
    $python1 = /os\.dup2\(\s*[a-z_]{1,16}\.fileno\(\)\s*,\s*0\s*\)/
    $python2 = /(pty\.spawn|subprocess\.call|subprocess\.run|os\.execl)\(\s*\[?\s*["']\/bin\/(ba|z|da)?sh/
  condition:
    script_file and ($bash or $exec or $netcat or ($python1 and $python2))
}

rule script_that_hides_what_it_runs {
  meta:
    verdict = "pu"
    name = "Suspicious.Script.Obfuscated"
  strings:
    $decode_and_run = /\bbase64\s+(-d|-D|--decode)\b[^\n]{0,60}\|\s*(sudo\s+)?(ba|z|da)?sh\b/
    $fetch_and_run = /\b(curl|wget)\s[^\n|;]{1,300}\|\s*(base64|openssl|xxd|gunzip)\s[^\n|;]{1,100}\|\s*(sudo\s+)?(ba|z|da)?sh\b/
    $python_decode = /exec\(\s*(zlib\.decompress|base64\.b64decode|marshal\.loads)\s*\(/
  condition:
    script_file and any of them
}

rule script_that_erases_traces {
  meta:
    verdict = "unwanted"
    name = "Riskware.Script.TraceRemoval"
  strings:
    $history1 = "unset HISTFILE" ascii
    $history2 = "HISTFILE=/dev/null" ascii
    $history3 = "history -c" ascii
    $logs1 = /(rm\s+-r?f\s+|truncate\s+-s\s*0\s+|>\s*)\/var\/log\/(wtmp|btmp|lastlog|auth\.log|secure)\b/
    $cron = /\bcrontab\s+-\s*$|\|\s*crontab\s+-/
    $immutable = /\bchattr\s+\+i\b/
    $accounts = /\b(echo|printf)\s[^\n]{0,200}>>\s*~?[^\s]{0,60}\/\.ssh\/authorized_keys\b/
  condition:
    script_file and any of ($history*) and $logs1 and any of ($cron, $immutable, $accounts)
}
