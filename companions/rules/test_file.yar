// The standard test file of the anti-malware industry (https://www.eicar.org): 68 fixed bytes, after them nothing but
// white space, 128 bytes at most altogether. It does no harm; every product reports it.

rule standard_test_file {
  meta:
    verdict = "malicious"
    name = "EICAR-Test-File"
  strings:
    $text = {
      58 35 4F 21 50 25 40 41 50 5B 34 5C 50 5A 58 35 34
      28 50 5E 29 37 43 43 29 37 7D 24 45 49 43 41 52 2D
      53 54 41 4E 44 41 52 44 2D 41 4E 54 49 56 49 52 55
      53 2D 54 45 53 54 2D 46 49 4C 45 21 24 48 2B 48 2A
    }
  condition:
    $text at 0 and filesize <= 128 and
    (filesize == 68 or
     for all i in (68..filesize - 1) : (
       uint8(i) == 0x20 or uint8(i) == 0x09 or uint8(i) == 0x0A or uint8(i) == 0x0D or uint8(i) == 0x1A))
}
