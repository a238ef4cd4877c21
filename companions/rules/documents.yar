// Documents that start programs by themselves.

rule document_macro_that_starts_programs {
  meta:
    verdict = "pu"
    name = "Suspicious.Document.Macro"
  strings:
    $start1 = "AutoOpen" ascii wide nocase
    $start2 = "AutoExec" ascii wide nocase
    $start3 = "Document_Open" ascii wide nocase
    $start4 = "Workbook_Open" ascii wide nocase
    $run1 = "WScript.Shell" ascii wide nocase
    $run2 = "MacScript" ascii wide
    $run3 = "Shell.Application" ascii wide nocase
    $fetch1 = "URLDownloadToFile" ascii wide nocase
    $fetch2 = "MSXML2.XMLHTTP" ascii wide nocase
    $fetch3 = "ADODB.Stream" ascii wide nocase
  condition:
    uint32be(0) == 0xD0CF11E0 and uint32be(4) == 0xA1B11AE1 and any of ($start*) and any of ($run*) and
    any of ($fetch*)
}

rule pdf_that_launches_programs {
  meta:
    verdict = "pu"
    name = "Suspicious.Document.PDFLaunch"
  strings:
    $open = "/OpenAction" ascii
    $launch = /\/S\s{0,8}\/Launch\b/
    $shell1 = "cmd.exe" ascii nocase
    $shell2 = "powershell" ascii nocase
    $shell3 = "/bin/sh" ascii
  condition:
    uint32be(0) == 0x25504446 and $open and $launch and any of ($shell*)
}
