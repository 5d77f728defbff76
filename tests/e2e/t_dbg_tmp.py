from test_fault_loops import Cases
from fault_scenario import Figures
def test_dbg(tmp_path, emulator, server):
    cases = Cases(tmp_path, emulator, server)
    for i in (1,):
        sc = cases.scenario("later")
        r = sc.root.run_sync(QUILLSTONE_FAULT="sqlite:%d" % i)
        print(i, r)
        for k in range(3):
            r = sc.root.run_sync(); print(r)
        srv = sc.server_tree(); loc = sc.root.local_tree()
        print(sorted(set(srv) ^ set(loc)))
        print([p for p in srv if p in loc and srv[p] != loc[p]])
        print(sc.root.store_rows())
