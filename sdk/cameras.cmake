# SPDX-License-Identifier: Apache-2.0
# Rig, camera sources, IMU and grabber.
