"""Seeds of the targets whose inputs are runs of bytes with their lengths in front, or steps."""
import struct


def run(text):
    return struct.pack(">H", len(text)) + text


def short(text):
    return bytes([len(text)]) + text


def entry(name, family, address, length=None):
    content = bytes([len(address) + 2 if length is None else length, family]) + address
    return name.encode().ljust(16, b"\0") + content.ljust(16, b"\0")


def link(name, hardware):
    return entry(name, 18, b"\x01\0\x06" + bytes([len(name), len(hardware)]) + b"\0" + name.encode() + hardware, 20)


def interface_entries():
    ipv4 = b"\0\0\x0a\0\0\x02" + bytes(8)
    ipv6 = bytes(6) + bytes.fromhex("20010db8000000000000000000000002") + bytes(4)
    listing = entry("lo0", 2, b"\0\0\x7f\0\0\x01" + bytes(8)) + link("en0", b"\x02\x42\xac\x11\0\x02")
    listing += entry("en0", 2, ipv4) + entry("en0", 30, ipv6) + entry("en1", 2, ipv4)
    made = bytes([1])
    for kind, address in [(0, b"\0\0\x02\0\0\0\0\0\0\x06abcdef"), (1, ipv4), (2, ipv6), (16, b""), (17, ipv4)]:
        made += bytes([kind]) + run(address)
    return {"listing-any": b"\0\2" + listing, "listing-ipv4": b"\0\0" + listing, "made": made}


def hosts_files():
    hosts = b"127.0.0.1 localhost\n::1 localhost ip6-localhost\n\n# a comment\n216.239.38.120 www.google.com\n"
    pin, pin_at, remove, clear = b"\0", b"\1", b"\2", b"\3"
    steps = pin + short(b"www.bing.com") + pin_at + short(b"m.youtube.com") + short(b"216.239.38.120")
    steps += remove + short(b"www.google.com") + clear
    long_line = b"10.0.0.9 " + b"h" * 300 + b"\n"
    return {
        "pins": run(hosts) + b"\0" + steps,
        "record": run(hosts) + b"\1" + run(b"www.google.com\n") + clear + steps,
        "made-up": run(hosts[:30]) + b"\6" + run(hosts) + remove + short(b"localhost") + steps,
        "added-behind": run(hosts + b"10.0.0.1 mine\n") + b"\7" + run(b"mine\n") + run(hosts) + steps,
        "long-line": run(long_line + hosts[:-1]) + b"\0" + steps,
    }


def record_streams():
    """Steps: 0 time, 1 many connections, 2 an answer, 3 a removal, 4 a packet with another byte, 5 a packet."""
    def many(kind, first, count):
        return bytes([1, kind]) + struct.pack(">H", first) + bytes([count])

    def one(kind, number, page=0):
        return bytes([5, kind]) + struct.pack(">H", number) + bytes([page])

    def answer(which, how):
        return bytes([2]) + struct.pack(">H", which) + bytes([how])

    half_a_minute, back = b"\0\2\x1f\0", b"\0\6\x0a\0"
    plain, tls, ipv6, inbound, bare = 0, 2, 1, 4, 8
    return {
        "one": one(plain, 1) + one(plain | inbound, 1) + answer(0, 3) + one(plain | inbound, 1) + b"\3",
        "blocked": one(tls, 7, 3) + one(tls | bare, 7) + answer(0, 11) + one(tls | inbound, 7),
        "families": one(ipv6, 1) + one(ipv6 | tls, 1) + one(ipv6 | inbound | bare, 1) + half_a_minute + one(ipv6, 1),
        "many": many(plain, 1000, 40) + many(tls, 1000, 40) + half_a_minute + many(inbound, 1000, 10) + back
                + many(plain, 1200, 20),
        "zeros": one(16, 1) + one(32 | tls, 1) + one(16 | 32 | ipv6, 1) + one(16 | 32 | ipv6 | inbound, 1),
        "damaged": bytes([4, 0, 0, 1, 0, 2, 9]) + one(plain, 1) + bytes([4, 4, 0, 1, 0, 12, 0]),
    }


def directory_outputs():
    texts = {
        "netlogon": b"AuthenticationAuthority: ;ShadowHash; ;Kerberosv5;;alice@X; ;NetLogon;alice;BIRCH\n",
        "likewise": b"LSA Server Status:\n[Domain:BIRCH ]\n[Mode:ok]\n",
        "adinfo": b"Domain: birch.example\nNTLM NAME = BIRCH\nZone = x\n",
        "distinguished": b"x\ndistinguishedName:\n cn=Alice,dc=birch\n",
        "groups": b"dsAttrTypeNative:memberOf:\n cn=staff,dc=birch\n cn=Sales Team,ou=x,dc=birch\n",
        "memberships": b"a groupMembership: staff\nsales\n",
    }
    return {name: run(b"BIRCH") + text for name, text in texts.items()}


def accounts():
    users = b"root:x:0:0:root:/root:/bin/sh\nalice:x:1001:100:Alice Smith,Room 1:/home/a:/bin/bash\n"
    groups = b"root:x:0:\nstaff:x:50:alice,bob\nsales:x:100:alice\n"
    return {name: run(value) + run(users) + groups for name, value in
            {"name": b"alice", "number": b"100", "home": b"/home/a", "real-name": b"Alice Smith"}.items()}


def siblings():
    texts = b"".join(b"<string>" + name + b"</string>" for name in [b"filter.birch.example", b"10.0.0.5", b""])
    return {
        "two": b"\xff<?xml version=\"1.0\"?><!DOCTYPE plist><plist version=\"1.0\"><dict><key>Servers</key><array>"
               + texts + b"</array></dict></plist>",
        "none": b"\xff<plist><dict/></plist>",
        "one-answers": b"\x0f<plist>" + texts + b"</plist>",
    }


def configurations():
    flags = b"".join(b"<" + name + b">true</" + name + b">" for name in [
        b"BlockOnFailure", b"BalancedMode", b"VerboseLogging", b"OEMMode", b"FilteringDisabled", b"Ostler"])
    servers = b"<Servers><ServerName ServerType=\"2\">a.example</ServerName>"
    servers += b"<ServerName ServerType=\"1\">b.example</ServerName></Servers>"
    whole = b"<Fernhill><MachineUUID>A-B-C</MachineUUID><ServerName>b.example</ServerName>" + flags
    whole += b"<CachedUserName>alice</CachedUserName><CheckInTimeStamp>2026-11-22T10:00:00Z</CheckInTimeStamp>"
    whole += b"<LogLevel>64</LogLevel><kll>1</kll><Users><alice ServerType=\"email\">a@b</alice></Users>"
    return {"whole": whole + servers + b"</Fernhill>", "bare": b"<Fernhill></Fernhill>",
            "lonely-server": b"<Fernhill><ServerName>c.example</ServerName><LogLevel>x</LogLevel></Fernhill>",
            "broken": b"<Fernhill><Servers><ServerName>a</Servers></Fernhill"}


def http_exchanges():
    """A method, a URL, a header and an answer."""
    head = b"HTTP/1.1 200 OK\r\nServer: Microsoft-IIS/8.0\r\nDate: 2026-11-22T10:00:00Z\r\nContent-Length: 5\r\n"
    chunked = head + b"Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"
    header = run(b"X-Name") + run(b"a value")
    return {
        "get": b"\0" + run(b"http://shop.birch.example:8080/path?q=1") + header + head + b"\r\nhello",
        "head": b"\1" + run(b"https://shop.birch.example") + header + head + b"\r\n",
        "post": b"\2" + run(b"ftp://a/b") + header + chunked,
        "no-host": b"\0" + run(b"http:///x") + header,
        "odd-headers": b"\0" + run(b"a:/x") + header + b"HTTP/1.0 404\r\nA:b\r\nA : 2\r\nB:\r\n\r\n",
    }


def ldap_answers():
    """What goes over as it stands, what is made into entries, and what is read as words."""
    def field(tag, content):
        return bytes([tag, len(content)]) + content

    def message(tag, content):
        return field(0x30, b"\x02\x01\x01" + field(tag, content))

    values = field(0x31, field(4, b"alice"))
    entry = message(0x64, field(4, b"uid=alice,dc=birch") + field(0x30, field(0x30, field(4, b"uid") + values)))
    done = message(0x65, b"\x0a\x01\0\x04\0\x04\0")
    made = short(b"uid=alice,dc=birch") + b"\3" + b"\0\1" + short(b"alice") + b"\xff" + short(b"sn") + b"\2"
    made += short(b"Smith") + short(b"") + b"\2\1" + short(b"1001")
    return {
        "raw": b"\0" + entry + done, "raw-without-an-end": b"\0" + entry,
        "refused": b"\0" + message(0x65, b"\x0a\x01\x32\x04\0\x04\x02no"),
        "made": b"\1\1" + made, "made-twice": b"\1\2" + made + made,
        "words": b"\2" + run(b"a*b(c)\\d\0") + b"# client\nURI ldap://10.0.0.1:389/ ldap://b\nBASE dc=birch\n",
    }


def all_seeds():
    return {
        "HttpExchangeFuzzer": http_exchanges(),
        "LdapAnswerFuzzer": ldap_answers(),
        "InterfaceEntriesFuzzer": interface_entries(),
        "HostsFileFuzzer": hosts_files(),
        "RecordStreamFuzzer": record_streams(),
        "DirectoryOutputFuzzer": directory_outputs(),
        "LocalAccountsFuzzer": accounts(),
        "SiblingPreferencesFuzzer": siblings(),
        "ConfigurationFileFuzzer": configurations(),
    }
