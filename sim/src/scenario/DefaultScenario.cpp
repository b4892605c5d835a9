// The built-in demo world. Small sparse disks with a few MiB of recognisable data each,
// so a demo backup of every instance takes seconds. The disks are ESSD AutoPL
// ("cloud_auto"), the category whose 1 GiB minimum makes such small disks valid: copies
// and restored data disks then keep their exact size. The values of the instance types
// (cpu, memory, DiskQuantity) are the emulator's; they are not a price list.
// Networks: besides each region's defaults (see Scenario.h), Hangzhou has a second group
// "web" in its default VPC (an instance can join it) and a separate VPC "isolated" with
// its own vSwitch and group (an instance of the default VPC cannot). The instances keep
// fixed addresses so that a restore can ask for one of them back.
#include "scenario/Scenario.h"

namespace hxsim::scenario {

const std::string& DefaultScenarioJson() {
  static const std::string kJson = R"JSON({
  "accessKeys": [
    {"accessKeyId": "LTAI5tHxSimDemoAccessKey", "accessKeySecret": "HxSimDemoSecretForTheLocalEmulator01"}
  ],
  "timings": {
    "diskCreateSeconds": 3, "diskAttachSeconds": 5, "diskDetachSeconds": 5,
    "snapshotSeconds": 20, "imageSeconds": 30,
    "instancePendingSeconds": 10, "instanceStartSeconds": 10, "instanceStopSeconds": 10
  },
  "instanceTypes": [
    {"instanceTypeId": "ecs.g7.large", "family": "ecs.g7", "cpu": 2, "memoryGiB": 8, "diskQuantity": 17},
    {"instanceTypeId": "ecs.g7.xlarge", "family": "ecs.g7", "cpu": 4, "memoryGiB": 16, "diskQuantity": 17},
    {"instanceTypeId": "ecs.t6-c1m2.large", "family": "ecs.t6", "cpu": 2, "memoryGiB": 4, "diskQuantity": 5}
  ],
  "regions": [
    {"regionId": "cn-hangzhou", "localName": "China (Hangzhou)", "zones": [
      {"zoneId": "cn-hangzhou-h", "localName": "Hangzhou Zone H",
       "instanceTypes": ["ecs.g7.large", "ecs.g7.xlarge", "ecs.t6-c1m2.large"],
       "diskCategories": ["cloud_essd", "cloud_auto", "cloud_efficiency"]},
      {"zoneId": "cn-hangzhou-i", "localName": "Hangzhou Zone I",
       "instanceTypes": ["ecs.g7.large", "ecs.g7.xlarge"],
       "diskCategories": ["cloud_essd", "cloud_auto"]}
    ]},
    {"regionId": "cn-shanghai", "localName": "China (Shanghai)", "zones": [
      {"zoneId": "cn-shanghai-l", "localName": "Shanghai Zone L",
       "instanceTypes": ["ecs.g7.large", "ecs.t6-c1m2.large"],
       "diskCategories": ["cloud_essd", "cloud_auto"]}
    ]}
  ],
  "images": [
    {"imageId": "aliyun_3_x64_20G_alibase_20240819.vhd", "imageName": "Alibaba Cloud Linux 3.2104 LTS 64-bit",
     "platform": "Aliyun", "osName": "Alibaba Cloud Linux 3.2104 LTS 64-bit", "sizeGiB": 20},
    {"imageId": "ubuntu_22_04_x64_20G_alibase_20240812.vhd", "imageName": "Ubuntu 22.04 64-bit",
     "platform": "Ubuntu", "osName": "Ubuntu 22.04 64-bit", "sizeGiB": 20}
  ],
  "vpcs": [
    {"vpcId": "vpc-hxsim0iso00000000001", "regionId": "cn-hangzhou", "cidrBlock": "192.168.0.0/16"}
  ],
  "vSwitches": [
    {"vSwitchId": "vsw-hxsim0iso00000000001", "vpcId": "vpc-hxsim0iso00000000001", "zoneId": "cn-hangzhou-h",
     "cidrBlock": "192.168.1.0/24"}
  ],
  "securityGroups": [
    {"securityGroupId": "sg-hxsim0web00000000001", "securityGroupName": "web", "vpcId": "vpc-hxsimcn-hangzhou"},
    {"securityGroupId": "sg-hxsim0iso00000000001", "securityGroupName": "isolated", "vpcId": "vpc-hxsim0iso00000000001"}
  ],
  "proxyInstanceId": "i-hxsim0proxy000000001",
  "instances": [
    {"instanceId": "i-hxsim0proxy000000001", "instanceName": "backup-proxy", "regionId": "cn-hangzhou",
     "zoneId": "cn-hangzhou-h", "instanceType": "ecs.g7.large", "imageId": "aliyun_3_x64_20G_alibase_20240819.vhd",
     "privateIpAddress": "172.16.0.11", "tags": {"role": "backup-proxy"},
     "disks": [
       {"diskId": "d-hxsim0proxy000000001", "type": "system", "sizeGiB": 1, "category": "cloud_auto", "content": {"pattern": "marker", "dataMiB": 1}}
     ]},
    {"instanceId": "i-hxsim0vm000000000001", "instanceName": "web-01", "regionId": "cn-hangzhou",
     "zoneId": "cn-hangzhou-h", "instanceType": "ecs.g7.large", "imageId": "aliyun_3_x64_20G_alibase_20240819.vhd",
     "privateIpAddress": "172.16.0.12", "tags": {"env": "demo", "app": "web"},
     "disks": [
       {"diskId": "d-hxsim0disk0000000001", "type": "system", "sizeGiB": 2, "category": "cloud_auto", "content": {"pattern": "marker", "dataMiB": 4}}
     ]},
    {"instanceId": "i-hxsim0vm000000000002", "instanceName": "db-01", "regionId": "cn-hangzhou",
     "zoneId": "cn-hangzhou-h", "instanceType": "ecs.g7.xlarge", "imageId": "ubuntu_22_04_x64_20G_alibase_20240812.vhd",
     "privateIpAddress": "172.16.0.13", "tags": {"env": "demo", "app": "db"},
     "disks": [
       {"diskId": "d-hxsim0disk0000000002", "type": "system", "sizeGiB": 1, "category": "cloud_auto", "content": {"pattern": "marker", "dataMiB": 2}},
       {"diskId": "d-hxsim0disk0000000003", "type": "data", "sizeGiB": 2, "category": "cloud_auto", "diskName": "db-data",
        "content": {"pattern": "random", "dataMiB": 4}}
     ]},
    {"instanceId": "i-hxsim0vm000000000003", "instanceName": "app-01", "regionId": "cn-hangzhou",
     "zoneId": "cn-hangzhou-h", "instanceType": "ecs.t6-c1m2.large", "imageId": "aliyun_3_x64_20G_alibase_20240819.vhd",
     "privateIpAddress": "172.16.0.14", "tags": {"env": "demo", "app": "app"},
     "disks": [
       {"diskId": "d-hxsim0disk0000000004", "type": "system", "sizeGiB": 1, "category": "cloud_auto", "content": {"pattern": "marker", "dataMiB": 2}},
       {"diskId": "d-hxsim0disk0000000005", "type": "data", "sizeGiB": 1, "category": "cloud_auto", "content": {"pattern": "marker", "dataMiB": 3}},
       {"diskId": "d-hxsim0disk0000000006", "type": "data", "sizeGiB": 1, "category": "cloud_auto", "content": {"pattern": "random", "dataMiB": 2}},
       {"diskId": "d-hxsim0disk0000000007", "type": "data", "sizeGiB": 2, "category": "cloud_auto",
        "content": {"pattern": "marker", "dataMiB": 4}}
     ]},
    {"instanceId": "i-hxsim0vm000000000004", "instanceName": "web-02", "regionId": "cn-hangzhou",
     "zoneId": "cn-hangzhou-i", "instanceType": "ecs.g7.large", "imageId": "aliyun_3_x64_20G_alibase_20240819.vhd",
     "privateIpAddress": "172.16.16.15", "tags": {"env": "demo", "app": "web"},
     "disks": [
       {"diskId": "d-hxsim0disk0000000008", "type": "system", "sizeGiB": 1, "category": "cloud_auto", "content": {"pattern": "marker", "dataMiB": 2}},
       {"diskId": "d-hxsim0disk0000000009", "type": "data", "sizeGiB": 1, "category": "cloud_auto", "content": {"pattern": "random", "dataMiB": 2}}
     ]}
  ]
}
)JSON";
  return kJson;
}

}  // namespace hxsim::scenario
