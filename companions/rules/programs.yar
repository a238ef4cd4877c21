// Programs that no machine should run unnoticed. Each rule asks for several signs together: a single telling string also
// stands in manuals, in tests and in security tools.

private rule program_file {
  condition:
    uint32be(0) == 0x7F454C46 or                                  // ELF
    uint32(0) == 0xFEEDFACE or uint32(0) == 0xFEEDFACF or         // Mach-O
    uint32be(0) == 0xFEEDFACE or uint32be(0) == 0xFEEDFACF or
    uint32be(0) == 0xCAFEBABE or uint32be(0) == 0xCAFEBABF or     // Mach-O for several processors
    (uint16be(0) == 0x4D5A and uint32(uint32(0x3C)) == 0x00004550)  // PE
}

rule coin_miner {
  meta:
    verdict = "unwanted"
    name = "Riskware.CoinMiner"
  strings:
    $pool_plain = "stratum+tcp://" ascii nocase
    $pool_tls = "stratum+ssl://" ascii nocase
    $subscribe = "mining.subscribe" ascii
    $authorize = "mining.authorize" ascii
    $submit = "mining.submit" ascii
    $job = "\"job_id\"" ascii
    $difficulty = "mining.set_difficulty" ascii
  condition:
    program_file and any of ($pool_*) and 3 of ($subscribe, $authorize, $submit, $job, $difficulty)
}

rule preload_rootkit {
  meta:
    verdict = "malicious"
    name = "Trojan.PreloadRootkit"
  strings:
    $preload = "/etc/ld.so.preload" ascii
    $next = "dlsym" ascii
    $tcp = "/proc/net/tcp" ascii
    $hide1 = "readdir64" ascii
    $hide2 = "__xstat64" ascii
    $hide3 = "unlinkat" ascii
    $door1 = "pam_authenticate" ascii
    $door2 = "accept" ascii fullword
    $door3 = "/bin/sh" ascii
    $door4 = "execve" ascii fullword
  condition:
    uint32be(0) == 0x7F454C46 and uint16(0x10) == 3 and $preload and $next and $tcp and all of ($hide*) and
    2 of ($door*) and filesize < 2MB
}

rule file_encrypting_program {
  meta:
    verdict = "malicious"
    name = "Ransom.Generic"
  strings:
    $note1 = "your files have been encrypted" ascii wide nocase
    $note2 = "all your files are encrypted" ascii wide nocase
    $note3 = "to decrypt your files" ascii wide nocase
    $pay1 = "bitcoin" ascii wide nocase
    $pay2 = "monero" ascii wide nocase
    $pay3 = ".onion" ascii wide nocase
    $undo1 = "vssadmin delete shadows" ascii wide nocase
    $undo2 = "wbadmin delete catalog" ascii wide nocase
    $undo3 = "bcdedit /set {default} recoveryenabled no" ascii wide nocase
    $undo4 = "tmutil deletelocalsnapshots" ascii wide nocase
    $undo5 = "tmutil disablelocal" ascii wide nocase
  condition:
    program_file and any of ($note*) and any of ($pay*) and any of ($undo*)
}
