#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Generates lib/unicode/unicodeEncodingTable.inc, the encoding-name table.

Run once by hand (python3 scripts/gen-encoding-table.py) on a machine with
Debian's ICU; the output is committed, so builds never need this script.

Each row: IANA MIB number, Windows code page, enumerator, supported flag,
index of the preferred name, names. The preferred names, their order, the
enumerators of the supported rows and a few complete rows are fixed below.
Every other row's names are its preferred name followed by the aliases that
ICU's alias table gives for it (IANA aliases included), minus any alias that
an earlier row already holds or that equals, in letters and digits, another
row's preferred name: lookups go in table order, so such an alias could only
shadow or be shadowed. Rows whose enumerator is not fixed take the unused
values below 324 in table order.
"""
import ctypes
import re
import sys

ICU_SONAME, ICU_VERSION = "libicuuc.so.72", "72"
MAX_NAMES = 21
NUM_ENUMERATORS = 324

PREFERRED = [
    'ASCII', 'ISO-8859-1', 'ISO-8859-2', 'ISO-8859-3', 'ISO-8859-4', 'ISO-8859-5',
    'ISO-8859-6', 'ASMO-708', 'ISO-8859-7', 'ibm-813_P100-1995', 'ISO-8859-8', 'ISO-8859-9',
    'ISO-8859-10', 'ISO_6937-2-add', 'JIS_X0201', 'JIS_Encoding', 'Shift_JIS', 'ibm-943_P130-1999',
    'EUC-JP', 'ibm-33722_P12A_P12A-2004_U2', 'Extended_UNIX_Code_Fixed_Width_for_Japanese', 'BS_4730', 'SEN_850200_C', 'IT',
    'ES', 'DIN_66003', 'NS_4551-1', 'NF_Z_62-010', 'ISO-10646-UTF-1', 'ISO_646.basic:1983',
    'INVARIANT', 'ISO_646.irv:1983', 'NATS-SEFI', 'NATS-SEFI-ADD', 'NATS-DANO', 'NATS-DANO-ADD',
    'SEN_850200_B', 'KS_C_5601-1987', 'windows-949-2000', 'ibm-1363_P11B-1998', 'ISO-2022-KR', 'ISO-2022-JP',
    'ISO-2022-JP-1', 'ISO-2022-JP-2', 'JIS_C6220-1969-jp', 'JIS_C6220-1969-ro', 'PT', 'greek7-old',
    'latin-greek', 'NF_Z_62-010_(1973)', 'Latin-greek-1', 'ISO_5427', 'JIS_C6226-1978', 'BS_viewdata',
    'INIS', 'INIS-8', 'INIS-cyrillic', 'ISO_5427:1981', 'ISO_5428:1980', 'GB_1988-80',
    'GB_2312-80', 'NS_4551-2', 'videotex-suppl', 'PT2', 'ES2', 'MSZ_7795.3',
    'JIS_C6226-1983', 'greek7', 'ASMO_449', 'iso-ir-90', 'JIS_C6229-1984-a', 'JIS_C6229-1984-b',
    'JIS_C6229-1984-b-add', 'JIS_C6229-1984-hand', 'JIS_C6229-1984-hand-add', 'JIS_C6229-1984-kana', 'ISO_2033-1983', 'ANSI_X3.110-1983',
    'T.61-7bit', 'T.61-8bit', 'ECMA-cyrillic', 'CSA_Z243.4-1985-1', 'CSA_Z243.4-1985-2', 'CSA_Z243.4-1985-gr',
    'ISO-8859-6-E', 'ISO-8859-6-I', 'T.101-G2', 'ISO-8859-8-E', 'ISO-8859-8-I', 'CSN_369103',
    'JUS_I.B1.002', 'IEC_P27-1', 'JUS_I.B1.003-serb', 'JUS_I.B1.003-mac', 'greek-ccitt', 'NC_NC00-10:81',
    'ISO_6937-2-25', 'GOST_19768-74', 'ISO_8859-supp', 'ISO_10367-box', 'latin-lap', 'JIS_X0212-1990',
    'DS_2089', 'us-dk', 'dk-us', 'KSC5636', 'UNICODE-1-1-UTF-7', 'ISO-2022-CN',
    'ISO-2022-CN-EXT', 'UTF-8', 'ISO-8859-13', 'ISO-8859-14', 'ISO-8859-15', 'ibm-874',
    'ISO-8859-16', 'GBK', 'ibm-1386', 'GB18030', 'OSD_EBCDIC_DF04_15', 'OSD_EBCDIC_DF03_IRV',
    'OSD_EBCDIC_DF04_1', 'ISO-11548-1', 'KZ-1048', 'ISO-10646-UCS-2', 'ISO-10646-UCS-4', 'ISO-10646-UCS-Basic',
    'ISO-10646-Unicode-Latin1', 'ISO-10646-J-1', 'ISO-Unicode-IBM-1261', 'ISO-Unicode-IBM-1268', 'ISO-Unicode-IBM-1276', 'ISO-Unicode-IBM-1264',
    'ISO-Unicode-IBM-1265', 'UNICODE-1-1', 'SCSU', 'UTF-7', 'UTF-16BE', 'UTF-16LE',
    'UTF-16', 'CESU-8', 'UTF-32', 'UTF-32BE', 'UTF-32LE', 'BOCU-1',
    'ISO-8859-1-Windows-3.0-Latin-1', 'ISO-8859-1-Windows-3.1-Latin-1', 'ISO-8859-2-Windows-Latin-2', 'ISO-8859-9-Windows-Latin-5', 'hp-roman8', 'Adobe-Standard-Encoding',
    'Ventura-US', 'Ventura-International', 'DEC-MCS', 'IBM850', 'PC8-Danish-Norwegian', 'IBM862',
    'PC8-Turkish', 'IBM-Symbols', 'IBM-Thai', 'HP-Legal', 'HP-Pi-font', 'HP-Math8',
    'Adobe-Symbol-Encoding', 'HP-DeskTop', 'Ventura-Math', 'Microsoft-Publishing', 'Windows-31J', 'GB2312',
    'Big5', 'ibm-1373_P100-2002', 'macintosh', 'IBM037', 'IBM038', 'IBM273',
    'IBM274', 'IBM275', 'IBM277', 'IBM278', 'IBM280', 'IBM281',
    'IBM284', 'IBM285', 'IBM290', 'IBM297', 'IBM420', 'IBM423',
    'IBM424', 'IBM437', 'IBM500', 'IBM851', 'IBM852', 'IBM855',
    'IBM857', 'IBM860', 'IBM861', 'IBM863', 'IBM864', 'IBM865',
    'IBM868', 'IBM869', 'IBM870', 'IBM871', 'IBM880', 'IBM891',
    'IBM903', 'IBM904', 'IBM905', 'IBM918', 'IBM1026', 'EBCDIC-AT-DE',
    'EBCDIC-AT-DE-A', 'EBCDIC-CA-FR', 'EBCDIC-DK-NO', 'EBCDIC-DK-NO-A', 'EBCDIC-FI-SE', 'EBCDIC-FI-SE-A',
    'EBCDIC-FR', 'EBCDIC-IT', 'EBCDIC-PT', 'EBCDIC-ES', 'EBCDIC-ES-A', 'EBCDIC-ES-S',
    'EBCDIC-UK', 'EBCDIC-US', 'UNKNOWN-8BIT', 'MNEMONIC', 'MNEM', 'VISCII',
    'VIQR', 'KOI8-R', 'HZ-GB-2312', 'IBM866', 'IBM775', 'KOI8-U',
    'IBM00858', 'IBM00924', 'IBM01140', 'IBM01141', 'IBM01142', 'IBM01143',
    'IBM01144', 'IBM01145', 'IBM01146', 'IBM01147', 'IBM01148', 'IBM01149',
    'Big5-HKSCS', 'ibm-5471_P100-2006', 'IBM1047', 'PTCP154', 'Amiga-1251', 'KOI7-switched',
    'BRF', 'TSCII', 'windows-1250', 'windows-1251', 'windows-1252', 'windows-1253',
    'windows-1254', 'windows-1255', 'windows-1256', 'windows-1257', 'windows-1258', 'TIS-620',
    'Windows-709', 'Windows-710', 'Windows-720', 'Windows-737', 'cp875', 'Windows-1361',
    'Windows-10000', 'Windows-10001', 'Windows-10002', 'Windows-10003', 'Windows-10004', 'Windows-10005',
    'Windows-10006', 'Windows-10007', 'Windows-10008', 'Windows-10010', 'Windows-10017', 'Windows-10021',
    'Windows-10029', 'Windows-10079', 'Windows-10081', 'Windows-10082', 'Windows-20000', 'Windows-20001',
    'Windows-20002', 'Windows-20003', 'Windows-20004', 'Windows-20005', 'Windows-20105', 'Windows-20106',
    'Windows-20107', 'Windows-20108', 'Windows-20269', 'Windows-20833', 'Windows-20949', 'cp1025',
    'Windows-21027', 'Windows-29001', 'iso-8859-8-i', 'csISO2022JP', 'ISO-2022-JP', 'Windows-50229',
    'Windows-50930', 'Windows-50931', 'Windows-50933', 'Windows-50935', 'Windows-50936', 'Windows-50937',
    'Windows-50939', 'EUC-CN', 'Windows-51950', 'Windows-57002', 'Windows-57003', 'Windows-57004',
    'Windows-57005', 'Windows-57006', 'Windows-57007', 'Windows-57008', 'Windows-57009', 'Windows-57010',
    'Windows-57011',
]

SUPPORTED = [
    (7, 'ASCII'), (8, 'ISO-8859-1'), (9, 'ISO-8859-2'), (10, 'ISO-8859-3'), (11, 'ISO-8859-4'), (12, 'ISO-8859-5'),
    (13, 'ISO-8859-6'), (13, 'ASMO-708'), (14, 'ISO-8859-7'), (15, 'ISO-8859-8'), (16, 'ISO-8859-9'), (17, 'ISO-8859-10'),
    (27, 'Shift_JIS'), (316, 'ibm-943_P130-1999'), (56, 'ISO_646.irv:1983'), (62, 'KS_C_5601-1987'), (318, 'windows-949-2000'), (319, 'ibm-1363_P11B-1998'),
    (29, 'ISO-2022-JP'), (103, 'ISO-8859-6-E'), (104, 'ISO-8859-6-I'), (106, 'ISO-8859-8-E'), (107, 'ISO-8859-8-I'), (0, 'UTF-8'),
    (18, 'ISO-8859-13'), (19, 'ISO-8859-14'), (20, 'ISO-8859-15'), (323, 'ibm-874'), (24, 'GBK'), (320, 'ibm-1386'),
    (133, 'ISO-10646-UCS-2'), (134, 'ISO-10646-UCS-4'), (144, 'SCSU'), (145, 'UTF-7'), (2, 'UTF-16BE'), (1, 'UTF-16LE'),
    (3, 'UTF-16'), (146, 'CESU-8'), (6, 'UTF-32'), (5, 'UTF-32BE'), (4, 'UTF-32LE'), (147, 'BOCU-1'),
    (157, 'IBM850'), (159, 'IBM862'), (170, 'Windows-31J'), (22, 'Big5'), (321, 'ibm-1373_P100-2002'), (188, 'IBM437'),
    (191, 'IBM852'), (193, 'IBM857'), (231, 'HZ-GB-2312'), (232, 'IBM866'), (233, 'IBM775'), (235, 'IBM00858'),
    (33, 'windows-1250'), (34, 'windows-1251'), (35, 'windows-1252'), (36, 'windows-1253'), (37, 'windows-1254'), (38, 'windows-1255'),
    (39, 'windows-1256'), (40, 'windows-1257'), (41, 'windows-1258'), (253, 'TIS-620'), (256, 'Windows-720'), (257, 'Windows-737'),
    (293, 'csISO2022JP'), (305, 'Windows-57002'), (314, 'Windows-57011'),
]

# Enumerators fixed beyond the supported rows.
EXTRA_ENUMS = {"ibm-813_P100-1995": 315, "ibm-33722_P12A_P12A-2004_U2": 317,
               "ibm-5471_P100-2006": 322}

# Rows given in full: (MIB, code page, enumerator, supported, preferred index, names).
FIXED_ROWS = {
    "ASCII": (3, 20127, 7, True, 4, ["ANSI_X3.4-1968", "iso-ir-6", "ANSI_X3.4-1986",
              "ISO_646.irv:1991", "ASCII", "ISO646-US", "US-ASCII", "us", "IBM367", "cp367",
              "csASCII", "646", "ascii7"]),
    "ISO-8859-1": (4, 28591, 8, True, 3, ["ISO_8859-1:1987", "iso-ir-100", "ISO_8859-1",
                   "ISO-8859-1", "latin1", "l1", "IBM819", "CP819", "csISOLatin1", "8859_1",
                   "819"]),
    "ASMO-708": (9, 708, 13, True, 0, ["ASMO-708"]),
    "ibm-813_P100-1995": (-1, -1, 315, False, 0, ["ibm-813_P100-1995", "ibm-813", "cp813",
                          "813", "8859_7"]),
    "UTF-8": (106, 65001, 0, True, 0, ["UTF-8", "ibm-1208", "ibm-1209", "ibm-5304", "ibm-5305",
              "ibm-13496", "ibm-13497", "ibm-17592", "ibm-17593", "cp1208"]),
    "UTF-16": (1015, -1, 3, True, 0, ["UTF-16"]),
    "UTF-32": (1017, -1, 6, True, 0, ["UTF-32"]),
    "UTF-32BE": (1018, 12001, 5, True, 0, ["UTF-32BE", "UTF32_BigEndian", "ibm-1232",
                 "ibm-1233", "ibm-9424"]),
    "UTF-32LE": (1019, 12000, 4, True, 0, ["UTF-32LE", "UTF32_LittleEndian", "ibm-1234",
                 "ibm-1235"]),
    "windows-1252": (2252, 1252, 35, True, 0, ["windows-1252", "ibm-5348_P100-1997",
                     "ibm-5348", "cp1252", "ibm-1252_P100-2000", "ibm-1252"]),
}
# Rows whose names start as given and continue with ICU's aliases.
LEADING_NAMES = {
    "UTF-16BE": ["UTF-16BE", "x-utf-16be"],
    "UTF-16LE": ["UTF-16LE", "x-utf-16le"],
}
REQUIRED_ALIASES = {"UTF-16BE": ["UTF16_BigEndian", "UnicodeBigUnmarked"],
                    "UTF-16LE": ["UTF16_LittleEndian", "UnicodeLittleUnmarked"]}

# IANA MIB numbers; rows not listed have none.
MIB = {
    "ISO-8859-2": 5, "ISO-8859-3": 6, "ISO-8859-4": 7, "ISO-8859-5": 8, "ISO-8859-6": 9,
    "ISO-8859-7": 10, "ISO-8859-8": 11, "ISO-8859-9": 12, "ISO-8859-10": 13,
}
# From ISO_6937-2-add (14) up to UTF-8 the registry numbers its sets in the
# order of the table; MIB_OVERRIDES restarts the count where it jumps.
_SEQUENTIAL_FROM = "ISO_6937-2-add"
MIB_OVERRIDES = {
    "ISO-2022-KR": 37, "ISO-2022-JP": 39, "ISO-2022-JP-1": -1, "ISO-2022-JP-2": 40,
    "UTF-8": 106, "ISO-8859-13": 109, "ISO-8859-14": 110, "ISO-8859-15": 111,
    "ISO-8859-16": 112, "GBK": 113, "GB18030": 114, "OSD_EBCDIC_DF04_15": 115,
    "OSD_EBCDIC_DF03_IRV": 116, "OSD_EBCDIC_DF04_1": 117, "ISO-11548-1": 118, "KZ-1048": 119,
    "ISO-10646-UCS-2": 1000, "ISO-10646-UCS-4": 1001, "ISO-10646-UCS-Basic": 1002,
    "ISO-10646-Unicode-Latin1": 1003, "ISO-10646-J-1": 1004, "ISO-Unicode-IBM-1261": 1005,
    "ISO-Unicode-IBM-1268": 1006, "ISO-Unicode-IBM-1276": 1007, "ISO-Unicode-IBM-1264": 1008,
    "ISO-Unicode-IBM-1265": 1009, "UNICODE-1-1": 1010, "SCSU": 1011, "UTF-7": 1012,
    "UTF-16BE": 1013, "UTF-16LE": 1014, "UTF-16": 1015, "CESU-8": 1016, "UTF-32": 1017,
    "UTF-32BE": 1018, "UTF-32LE": 1019, "BOCU-1": 1020,
    "ISO-8859-1-Windows-3.0-Latin-1": 2000, "ISO-8859-1-Windows-3.1-Latin-1": 2001,
    "ISO-8859-2-Windows-Latin-2": 2002, "ISO-8859-9-Windows-Latin-5": 2003, "hp-roman8": 2004,
    "Adobe-Standard-Encoding": 2005, "Ventura-US": 2006, "Ventura-International": 2007,
    "DEC-MCS": 2008, "IBM850": 2009, "IBM852": 2010, "IBM437": 2011,
    "PC8-Danish-Norwegian": 2012, "IBM862": 2013, "PC8-Turkish": 2014, "IBM-Symbols": 2015,
    "IBM-Thai": 2016, "HP-Legal": 2017, "HP-Pi-font": 2018, "HP-Math8": 2019,
    "Adobe-Symbol-Encoding": 2020, "HP-DeskTop": 2021, "Ventura-Math": 2022,
    "Microsoft-Publishing": 2023, "Windows-31J": 2024, "GB2312": 2025, "Big5": 2026,
    "macintosh": 2027, "IBM037": 2028, "IBM038": 2029, "IBM273": 2030, "IBM274": 2031,
    "IBM275": 2032, "IBM277": 2033, "IBM278": 2034, "IBM280": 2035, "IBM281": 2036,
    "IBM284": 2037, "IBM285": 2038, "IBM290": 2039, "IBM297": 2040, "IBM420": 2041,
    "IBM423": 2042, "IBM424": 2043, "IBM500": 2044, "IBM851": 2045, "IBM855": 2046,
    "IBM857": 2047, "IBM860": 2048, "IBM861": 2049, "IBM863": 2050, "IBM864": 2051,
    "IBM865": 2052, "IBM868": 2053, "IBM869": 2054, "IBM870": 2055, "IBM871": 2056,
    "IBM880": 2057, "IBM891": 2058, "IBM903": 2059, "IBM904": 2060, "IBM905": 2061,
    "IBM918": 2062, "IBM1026": 2063, "EBCDIC-AT-DE": 2064, "EBCDIC-AT-DE-A": 2065,
    "EBCDIC-CA-FR": 2066, "EBCDIC-DK-NO": 2067, "EBCDIC-DK-NO-A": 2068, "EBCDIC-FI-SE": 2069,
    "EBCDIC-FI-SE-A": 2070, "EBCDIC-FR": 2071, "EBCDIC-IT": 2072, "EBCDIC-PT": 2073,
    "EBCDIC-ES": 2074, "EBCDIC-ES-A": 2075, "EBCDIC-ES-S": 2076, "EBCDIC-UK": 2077,
    "EBCDIC-US": 2078, "UNKNOWN-8BIT": 2079, "MNEMONIC": 2080, "MNEM": 2081, "VISCII": 2082,
    "VIQR": 2083, "KOI8-R": 2084, "HZ-GB-2312": 2085, "IBM866": 2086, "IBM775": 2087,
    "KOI8-U": 2088, "IBM00858": 2089, "IBM00924": 2090, "IBM01140": 2091, "IBM01141": 2092,
    "IBM01142": 2093, "IBM01143": 2094, "IBM01144": 2095, "IBM01145": 2096, "IBM01146": 2097,
    "IBM01147": 2098, "IBM01148": 2099, "IBM01149": 2100, "Big5-HKSCS": 2101, "IBM1047": 2102,
    "PTCP154": 2103, "Amiga-1251": 2104, "KOI7-switched": 2105, "BRF": 2106, "TSCII": 2107,
    "windows-1250": 2250, "windows-1251": 2251, "windows-1253": 2253, "windows-1254": 2254,
    "windows-1255": 2255, "windows-1256": 2256, "windows-1257": 2257, "windows-1258": 2258,
    "TIS-620": 2259,
}

# Code pages of the second row of a name.
SECOND_ROW_CODE_PAGE = {"ISO-2022-JP": 50222}
# Windows code pages; rows not listed have none. "Windows-N" rows have N.
CODE_PAGE = {
    "ISO-8859-2": 28592, "ISO-8859-3": 28593, "ISO-8859-4": 28594, "ISO-8859-5": 28595,
    "ISO-8859-6": 28596, "ISO-8859-7": 28597, "ISO-8859-8": 28598, "ISO-8859-9": 28599,
    "ISO-8859-13": 28603, "ISO-8859-15": 28605, "Shift_JIS": 932, "EUC-JP": 51932,
    "KS_C_5601-1987": 949, "ISO-2022-KR": 50225, "ISO-2022-JP": 50220, "csISO2022JP": 50221,
    "ISO-8859-8-I": 38598, "UTF-7": 65000, "UTF-16BE": 1201, "UTF-16LE": 1200,
    "ibm-874": 874, "GBK": 936, "GB18030": 54936, "Big5": 950, "macintosh": 10000,
    "IBM037": 37, "IBM437": 437, "IBM500": 500, "IBM850": 850, "IBM852": 852, "IBM855": 855,
    "IBM857": 857, "IBM00858": 858, "IBM860": 860, "IBM861": 861, "IBM862": 862,
    "IBM863": 863, "IBM864": 864, "IBM865": 865, "IBM866": 866, "IBM869": 869, "IBM870": 870,
    "IBM775": 775, "IBM1026": 1026, "IBM1047": 1047, "IBM273": 20273, "IBM277": 20277,
    "IBM278": 20278, "IBM280": 20280, "IBM284": 20284, "IBM285": 20285, "IBM290": 20290,
    "IBM297": 20297, "IBM420": 20420, "IBM423": 20423, "IBM424": 20424, "IBM871": 20871,
    "IBM880": 20880, "IBM905": 20905, "IBM00924": 20924, "KOI8-R": 20866, "KOI8-U": 21866,
    "HZ-GB-2312": 52936, "EUC-CN": 51936, "cp875": 875, "cp1025": 21025,
    "IBM01140": 1140, "IBM01141": 1141, "IBM01142": 1142, "IBM01143": 1143, "IBM01144": 1144,
    "IBM01145": 1145, "IBM01146": 1146, "IBM01147": 1147, "IBM01148": 1148, "IBM01149": 1149,
    "windows-1250": 1250, "windows-1251": 1251, "windows-1253": 1253, "windows-1254": 1254,
    "windows-1255": 1255, "windows-1256": 1256, "windows-1257": 1257, "windows-1258": 1258,
    "ISO-2022-CN": 50227, "Big5-HKSCS": 951, "TIS-620": 28601, "ISO-8859-6-I": 28596,
}


def reduce(name):
    return re.sub(r"[^a-z0-9]", "", name.lower())


def icu_aliases(lib, name):
    err = ctypes.c_int(0)
    count = lib["countAliases"](name.encode(), ctypes.byref(err))
    if err.value > 0:
        return []
    aliases = []
    for i in range(count):
        err.value = 0
        alias = lib["getAlias"](name.encode(), i, ctypes.byref(err))
        if err.value <= 0 and alias:
            aliases.append(alias.decode())
    return aliases


def load_icu():
    icu = ctypes.CDLL(ICU_SONAME)
    count = getattr(icu, "ucnv_countAliases_" + ICU_VERSION)
    count.restype, count.argtypes = ctypes.c_uint16, [ctypes.c_char_p, ctypes.c_void_p]
    get = getattr(icu, "ucnv_getAlias_" + ICU_VERSION)
    get.restype = ctypes.c_char_p
    get.argtypes = [ctypes.c_char_p, ctypes.c_uint16, ctypes.c_void_p]
    return {"countAliases": count, "getAlias": get}


def sequential_mibs():
    """ISO_6937-2-add is 14; the IANA-registered rows after it count up."""
    mibs, mib = {}, 14
    start = PREFERRED.index(_SEQUENTIAL_FROM)
    for name in PREFERRED[start:PREFERRED.index("UTF-8")]:
        if name.startswith("ibm-") or name in ("windows-949-2000",):
            continue
        if name in MIB_OVERRIDES:
            mib = MIB_OVERRIDES[name]
            if mib < 0:
                continue
        mibs.setdefault(name, mib)
        mib += 1
        if mib == 38:
            mib = 39  # EUC-KR has no row of its own
    return mibs


def main():
    icu = load_icu()
    supported = {}
    for enum, name in SUPPORTED:
        supported.setdefault(name, []).append(int(enum))
    for n in range(57003, 57011):
        supported.setdefault("Windows-%d" % n, []).append(305 + n - 57002)

    enums = [None] * len(PREFERRED)
    is_supported = [False] * len(PREFERRED)
    for i, name in enumerate(PREFERRED):
        if supported.get(name):
            enums[i] = supported[name].pop(0)
            is_supported[i] = True
        elif name in EXTRA_ENUMS and EXTRA_ENUMS[name] not in enums:
            enums[i] = EXTRA_ENUMS[name]
    assert sum(is_supported) == 77, sum(is_supported)
    free = iter(sorted(set(range(NUM_ENUMERATORS)) - set(e for e in enums if e is not None)))
    for i in range(len(enums)):
        if enums[i] is None:
            enums[i] = next(free)
    assert sorted(set(enums)) == list(range(NUM_ENUMERATORS))

    seq = sequential_mibs()
    preferred_reduced = {}
    for i, name in enumerate(PREFERRED):
        preferred_reduced.setdefault(reduce(name), i)
    taken = set()  # reduced names held by earlier rows
    rows = []
    seen = set()
    for i, name in enumerate(PREFERRED):
        if name in FIXED_ROWS and name not in seen:
            mib, cp, enum, sup, pref, names = FIXED_ROWS[name]
            assert enum == enums[i] and sup == is_supported[i], name
        else:
            mib = -1 if name in seen else MIB_OVERRIDES.get(name, MIB.get(name, seq.get(name, -1)))
            cp = SECOND_ROW_CODE_PAGE.get(name, -1) if name in seen else CODE_PAGE.get(name, -1)
            m = re.fullmatch(r"Windows-(\d+)", name)
            if m:
                cp = int(m.group(1))
            enum, sup, pref = enums[i], is_supported[i], 0
            names = list(LEADING_NAMES.get(name, [name]))
            for alias in icu_aliases(icu, name):
                r = reduce(alias)
                if len(names) >= MAX_NAMES or alias in names:
                    continue
                if r in taken or preferred_reduced.get(r, i) != i:
                    continue
                names.append(alias)
            for alias in REQUIRED_ALIASES.get(name, []):
                assert alias in names, (name, alias)
        seen.add(name)
        for n in names:
            taken.add(reduce(n))
        assert len(names) <= MAX_NAMES and names[pref] == name, name
        rows.append((mib, cp, enum, sup, pref, names))

    out = sys.stdout if len(sys.argv) < 2 else open(sys.argv[1], "w")
    out.write("// SPDX-License-Identifier: MIT\n"
              "// The encoding table: generated by scripts/gen-encoding-table.py from the\n"
              "// IANA character-set registry and ICU %s's alias table. Do not edit.\n"
              "// {MIB, Windows code page, enumerator, supported, preferred index, names}\n"
              % ICU_VERSION)
    for mib, cp, enum, sup, pref, names in rows:
        quoted = ", ".join('"%s"' % n for n in names)
        out.write("{%d, %d, %d, %s, %d, {%s, nullptr}},\n"
                  % (mib, cp, enum, "true" if sup else "false", pref, quoted))


if __name__ == "__main__":
    main()
