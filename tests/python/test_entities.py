"""Entities through their factories: attributes, setters, collections as
mappings, notifications into Python callables, and the error mapping."""

import pytest

import routinglib as rl

UcmpConfig = rl.type("RoutingLib::Ucmp::UcmpConfig")
VrfUcmpConfigDir = rl.type("RoutingLib::Ucmp::VrfUcmpConfigDir")


def test_a_new_config_reads_its_initial_values():
    c = UcmpConfig("vrf1")
    assert isinstance(c, rl.Entity)
    assert c.name == "vrf1"
    assert (c.maxUcmp, c.ucmpDeviation) == (4294967295, 0.0)
    assert (c.ucmpTriggerFecThreshold, c.ucmpClearFecThreshold) == (50, 40)
    assert c.ucmpDeviationDefault == 5.0
    assert repr(c) == "RoutingLib::Ucmp::UcmpConfig('vrf1')"
    assert c == c and c != UcmpConfig("vrf1")


def test_setters_notify_the_callable_once_per_change():
    c = UcmpConfig("vrf1")
    seen = []
    sub = c.notify(seen.append)
    c.maxUcmp = 64
    c.maxUcmp = 64  # the stored value: nobody is told
    c.ucmpDeviation = 2.5
    assert seen == ["maxUcmp", "ucmpDeviation"]
    assert (c.maxUcmp, c.ucmpDeviation) == (64, 2.5)
    sub.close()
    c.maxUcmp = 1
    assert seen == ["maxUcmp", "ucmpDeviation"]


def test_a_rejected_threshold_is_stored_and_not_notified():
    c = UcmpConfig("vrf1")
    seen = []
    with c.notify(seen.append):
        with pytest.raises(ValueError) as e:
            c.ucmpTriggerFecThreshold = 101
        assert isinstance(e.value, rl.RangeError)
        assert str(e.value) == "UcmpConfig::ucmpTriggerFecThreshold < -1 or > 100 not allowed"
        assert c.ucmpTriggerFecThreshold == 101
        assert seen == []
        c.ucmpTriggerFecThreshold = -1
        assert seen == ["ucmpTriggerFecThreshold"]


def test_collections_are_live_mappings():
    d = VrfUcmpConfigDir("dir")
    seen = []
    sub = d.notify(seen.append)
    red = d.vrfConfig.add("red")
    assert isinstance(red, rl.Entity) and red.name == "red"
    assert d.vrfConfig.add("red") == red, "an existing member is returned"
    d.vrfConfig.add("blue")
    assert sorted(d.vrfConfig) == ["blue", "red"]
    assert len(d.vrfConfig) == 2 and "red" in d.vrfConfig and "green" not in d.vrfConfig
    assert d.vrfConfig["red"] == red
    assert d.vrfConfig.get("green") is None
    with pytest.raises(KeyError):
        d.vrfConfig["green"]
    red.maxUcmp = 8
    assert d.vrfConfig["red"].maxUcmp == 8
    del d.vrfConfig["red"]
    assert list(d.vrfConfig) == ["blue"]
    d.vrfConfig.clear()
    assert len(d.vrfConfig) == 0
    assert seen and set(seen) == {"vrfConfig"}
    del sub


def test_a_map_of_values_takes_keys_and_values():
    s = rl.type("Memtab::KernelUnprogrammedRoute::ErrorCount")("red")
    s.numRoutes["ipv4"] = 3
    s.numRoutes[rl.type("Velnet::AddressFamily")("ipv6")] = 1
    assert {str(k): v for k, v in s.numRoutes.items()} == {"ipv4": 3, "ipv6": 1}
    with pytest.raises(ValueError):
        s.numRoutes["ipv4"] = -1


def test_an_exception_in_a_callback_surfaces_at_the_setter():
    c = UcmpConfig("vrf1")
    later = []

    def fail(attr):
        raise KeyError(attr)

    s1 = c.notify(fail)
    s2 = c.notify(later.append)
    with pytest.raises(KeyError):
        c.maxUcmp = 5
    assert c.maxUcmp == 5
    assert later == ["maxUcmp"], "the other callbacks still ran"
    s1.close()
    c.maxUcmp = 6
    assert later == ["maxUcmp", "maxUcmp"]
    del s2


def test_errors_map_to_python_exceptions():
    c = UcmpConfig("vrf1")
    with pytest.raises(PermissionError):
        c.maxUcmpDefault = 3
    with pytest.raises(AttributeError):
        c.noSuchAttribute
    with pytest.raises(AttributeError):
        c.noSuchAttribute = 1
    with pytest.raises(rl.RangeError):
        c.maxUcmp = 1 << 40
    with pytest.raises(rl.RangeError):
        c.maxUcmp = 1 << 70
    with pytest.raises(rl.RangeError):
        c.maxUcmp = -1
    with pytest.raises(TypeError):
        c.maxUcmp = [1]
    with pytest.raises(NotImplementedError):
        rl.type("RoutingLib::UcmpRebaseResult").parse("x")
    with pytest.raises(rl.ParseError):
        rl.parse("Routing::MetricPref", "Value('Routing::MetricPref', ** {'metric': x})")
    with pytest.raises(ValueError) as e:
        rl.type("L3::VrfName")("x" * 101)
    assert "VrfName::bytes > VrfName::maxLength not allowed" in str(e.value)
    with pytest.raises(rl.RangeError):
        UcmpConfig()  # the factory takes a name


def test_hostile_input_raises_and_never_crashes():
    import random
    rnd = random.Random(7)
    for t in rl.types():
        if t.kind not in ("value", "enumeration", "external"):
            continue
        for _ in range(20):
            data = bytes(rnd.randrange(256) for _ in range(rnd.randrange(40)))
            if t.has_attrlog_form:
                try:
                    t.from_attrlog(data)
                except ValueError:
                    pass
            if t.has_text_form:
                text = "".join(rnd.choice("Value('{}:, 0123456789abc*.-/") for _ in range(rnd.randrange(30)))
                try:
                    t.parse(text)
                except ValueError:
                    pass


def test_a_callback_may_close_its_own_subscription_and_drop_the_entity():
    c = UcmpConfig("vrf1")
    seen = []
    holder = {}

    def once(attr):
        seen.append(attr)
        holder.pop("sub").close()

    holder["sub"] = c.notify(once)
    c.maxUcmp = 3
    c.maxUcmp = 4
    assert seen == ["maxUcmp"]

    d = VrfUcmpConfigDir("dir")
    refs = {"d": d}

    def drop(attr):
        refs.clear()

    sub = d.notify(drop)
    del d
    refs["d"].vrfConfig.add("red")
    assert refs == {}
    del sub


def test_a_reactor_made_and_driven_from_python():
    status = rl.type("Routing::ConnectedRouteLeakStatus")("leak")
    local = rl.type("Routing::ConnectedRouteLeakLocalStatus")()
    sm = rl.type("Routing::ConnectedRouteLeakSourceVrfSm")(status, local)
    assert sm.crlStatus == status
    leaked = rl.type("Routing::RouteLeakedToVrf")(
        destVrfPrefix={"destVrfId": 5, "prefix": "10.0.0.0/8"}, sourceVrfId=7)
    status.leakedRoute.add(leaked)  # the table attribute takes the value alone
    assert status.leakedRoute[leaked.destVrfPrefix] == leaked
    source = rl.type("Routing::SourceVrfPrefix")(sourceVrfId=7, prefix="10.0.0.0/8")
    assert 5 in local.leakedRouteBySourceVrf[source].destVrfId
    del status.leakedRoute[leaked.destVrfPrefix]
    assert len(local.leakedRouteBySourceVrf) == 0
