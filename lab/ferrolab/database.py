"""Changes to the directory's database.

usage: database.py SMB_CONF COMMAND ARGS...

A program of its own: it works on the database itself, with or without the controller, and Samba's modules load slowly.
"""
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from ferrolab import accounts, connector_records, further_controllers, names, sites  # noqa: E402

from samba.auth import system_session  # noqa: E402
from samba.param import LoadParm  # noqa: E402
from samba.samdb import SamDB  # noqa: E402


def open_directory(smb_conf):
    parameters = LoadParm()
    parameters.load(smb_conf)
    return SamDB(session_info=system_session(), lp=parameters), parameters


def partition_file(parameters):
    return f"{parameters.get('private dir')}/sam.ldb.d/{names.BASE_DN.upper()}.ldb"


def fill(directory, parameters, features):
    """Once after provisioning."""
    directory.transaction_start()
    accounts.add_users(directory)
    sites.add_subnet(directory, names.HOST_SUBNET, names.SITE)
    accounts.add_controller_services(directory, names.DC)
    if "connectors" in features:
        accounts.add_controller_services(directory, names.SECOND_DC)
        sites.add_further_sites(directory)
        connector_records.add_all(directory)
    directory.transaction_commit()
    if "crowd" in features:
        connector_records.add_crowd(directory, partition_file(parameters))
    accounts.add_services(directory, parameters, features)


def main(smb_conf, *command):
    directory, parameters = open_directory(smb_conf)
    match command:
        case ["fill", features]:
            fill(directory, parameters, features.split(","))
        case ["set-enctypes", account, bits]:
            accounts.change(directory, account, msDS_SupportedEncryptionTypes=bits)
        case ["move-host", site]:
            sites.move_host(directory, site)
        case ["rename-site", site, new_name]:
            sites.rename(directory, site, new_name)
        case ["rename-parent", name, new_name]:
            connector_records.rename_computer(directory, name, new_name)
        case ["set-keywords", name, *changes]:
            connector_records.set_keywords(directory, name, changes)
        case ["add-dead-dc", place]:
            further_controllers.add(directory, names.DEAD_DC, place)
        case ["del-dead-dc"]:
            further_controllers.remove(directory, names.DEAD_DC)
        case ["add-second-dc", place]:
            further_controllers.add(directory, names.SECOND_DC, place)
        case ["del-second-dc"]:
            further_controllers.remove(directory, names.SECOND_DC)
        case _:
            raise SystemExit(f"unknown command: {' '.join(command)}")


if __name__ == "__main__":
    main(*sys.argv[1:])
